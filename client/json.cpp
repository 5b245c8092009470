#include "json.h"

#include "report.h"

#include <nlohmann/json.hpp>

namespace client {

namespace {

using json = nlohmann::ordered_json;

std::string line_of(const json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string status_json(std::string_view answer) {
    const status_report report = parse_status(answer);
    json value{{"conditions", json::array()}, {"messages", json::array()}, {"lost", report.lost}};
    for (const condition& c : report.conditions) {
        value["conditions"].push_back({{"name", c.name}, {"since", c.since}});
    }
    for (const message& m : report.messages) {
        value["messages"].push_back({{"date", m.date}, {"text", m.text}});
    }
    return line_of(value);
}

std::string show_ip_json(std::string_view answer) {
    json value{{"connections", json::array()}};
    for (const hmi_row& r : parse_show_ip(answer)) {
        value["connections"].push_back(
            {{"ip", r.ip}, {"user", r.user}, {"login", r.login}, {"locked", r.locked}});
    }
    return line_of(value);
}

}  // namespace client
