#include "run/json.h"

#include "protocol/listings.h"
#include "protocol/status.h"

#include <nlohmann/json.hpp>

namespace client {

namespace {

// Members keep the order in which they are added.
using json = nlohmann::ordered_json;

// ASCII output and replaced bytes: messages may contain any bytes, and JSON must be UTF-8.
std::string line_of(const json& value) {
    return value.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
}

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

std::string modules_json(std::string_view answer) {
    json value{{"modules", json::array()}};
    for (const module_row& m : parse_modules(answer)) {
        value["modules"].push_back({{"name", m.name}, {"on", m.on}});
    }
    return line_of(value);
}

// The answer of `modcntl` is empty when the module was switched, and has a text when that was refused.
std::string switch_json(const std::vector<std::string>& words, std::string_view answer) {
    if (!answer.empty()) {
        return line_of({{"error", answer.substr(0, answer.find('\n'))}});
    }
    return line_of({{"module", words[1]}, {"on", words.back() == "on"}});
}

std::string timer_json(std::string_view answer) {
    json value{{"jobs", json::array()}};
    for (const timer_job& j : parse_timer_jobs(answer)) {
        value["jobs"].push_back({{"command", j.command},
                                 {"minutes", j.minutes},
                                 {"hours", j.hours},
                                 {"days", j.days},
                                 {"months", j.months},
                                 {"weekdays", j.weekdays}});
    }
    return line_of(value);
}

std::string networks_json(std::string_view answer) {
    json value{{"allowed", json::array()}};
    for (const network_row& n : parse_networks(answer)) {
        value["allowed"].push_back({{"address", n.address}, {"prefix", n.prefix}});
    }
    return line_of(value);
}

}  // namespace

json_writer json_writer_of(const std::vector<std::string>& words) {
    if (words.empty()) {
        return nullptr;
    }
    // With a name, `modcntl` switches a module; its answer then is no listing.
    if (words[0] == "modcntl" && words.size() > 1) {
        return [words](std::string_view answer) { return switch_json(words, answer); };
    }
    // An empty argument means any: the scheduler ignores further words.
    constexpr struct {
        std::string_view command;
        std::string_view argument;
        std::string (*write)(std::string_view answer);
    } forms[] = {{"status", "", status_json},
                 {"modcntl", "", modules_json},
                 {"debug", "timer", timer_json},
                 {"show", "ip", show_ip_json},
                 {"show", "allowed_ip", networks_json}};
    for (const auto& form : forms) {
        if (words[0] == form.command &&
            (form.argument.empty() || (words.size() > 1 && words[1] == form.argument))) {
            return form.write;
        }
    }
    return nullptr;
}

// "error" comes before the members of the answer, which may be long or incomplete.
std::string host_json(const std::string& host, const std::string& line, const std::string& error) {
    json value{{"host", host}};
    if (!error.empty()) {
        value["error"] = error;
    }
    if (!line.empty()) {
        value.update(json::parse(line));
    }
    return line_of(value);
}

}  // namespace client
