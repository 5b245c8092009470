#include "follow_lines.h"

#include "connection.h"

#include <cctype>
#include <nlohmann/json.hpp>

namespace client {

namespace {

using json = nlohmann::ordered_json;

// Priorities of syslog(3).
enum level : int { error_level = 3, warning_level = 4, notice_level = 5, info_level = 6 };

constexpr std::size_t code_length = 5;  // E0101

level level_of(const message& what) {
    if (what.text.starts_with('E')) {
        return error_level;
    }
    return what.text.starts_with('W') ? warning_level : info_level;
}

// Returns the code before the colon, such as "E0101"; empty when the text has none.
std::string code_of(const std::string& text) {
    if (text.size() <= code_length || text[code_length] != ':') {
        return "";
    }
    for (std::size_t i = 1; i < code_length; ++i) {
        if (std::isdigit(static_cast<unsigned char>(text[i])) == 0) {
            return "";
        }
    }
    return text.substr(0, code_length);
}

std::string line_of(const endpoint& of, bool prefix, level priority, const std::string& time,
                    const char* event, const json& more) {
    json value{{"time", time}, {"host", of.host}, {"port", of.port}, {"event", event}};
    value.update(more);
    // Messages may contain any bytes, and JSON must be UTF-8.
    const std::string text = value.dump(-1, ' ', true, json::error_handler_t::replace) + "\n";
    return prefix ? std::string("<").append(std::to_string(priority)).append(">").append(text) : text;
}

}  // namespace

follow_lines::follow_lines(const endpoint& of, bool level_prefix) : of_(of), level_prefix_(level_prefix) {}

std::string follow_lines::connected() const {
    return line_of(of_, level_prefix_, notice_level, now_date(), "connected", json::object());
}

std::string follow_lines::disconnected(const std::string& reason) const {
    return line_of(of_, level_prefix_, error_level, now_date(), "disconnected", {{"reason", reason}});
}

std::string follow_lines::set(const condition& which) const {
    // "confdate" is a date that every status has, and no fault.
    const level priority = which.name == "error"      ? error_level
                           : which.name == "confdate" ? info_level
                                                      : warning_level;
    return line_of(of_, level_prefix_, priority, which.since, "condition",
                   {{"name", which.name}, {"set", true}});
}

std::string follow_lines::cleared(const condition& which) const {
    return line_of(of_, level_prefix_, notice_level, now_date(), "condition",
                   {{"name", which.name}, {"set", false}});
}

std::string follow_lines::received(const message& what) const {
    return line_of(of_, level_prefix_, level_of(what), what.date, "message",
                   {{"code", code_of(what.text)}, {"severity", severity_of(what)}, {"text", what.text}});
}

std::string follow_lines::lost(unsigned long count) const {
    return line_of(of_, level_prefix_, warning_level, now_date(), "lost", {{"count", count}});
}

const char* severity_of(const message& what) {
    switch (level_of(what)) {
        case error_level:
            return "error";
        case warning_level:
            return "warning";
        default:
            return "info";
    }
}

}  // namespace client
