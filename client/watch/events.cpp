#include "watch/events.h"

#include "run/json.h"

namespace {

using json = nlohmann::ordered_json;

// Returns the code before the colon, such as "E0101"; empty when the text has none.
std::string code_of(const std::string& text) {
    constexpr std::size_t length = 5;
    const bool has_code = text.find_first_not_of("0123456789", 1) == length && text[length] == ':';
    return has_code ? text.substr(0, length) : "";
}

}  // namespace

event connected_event() { return {notice_level, now_date(), "connected", "connected", json::object()}; }

event failed_event(const command_result& why) {
    const std::string reason = describe(why);
    const bool is_silent = why.how == outcome::no_answer;  // then the connection is still there
    return {error_level, now_date(), is_silent ? "no answer" : "disconnected: " + reason, "disconnected",
            json{{"reason", reason}}};
}

event condition_event(const condition& which, bool is_set) {
    const level alarm = which.name == "error" ? error_level : warning_level;
    const level priority = !is_set ? notice_level : is_fault(which.name) ? alarm : info_level;
    // The answer has no date for a condition that it no longer lists.
    return {priority, is_set ? which.since : now_date(), "condition " + which.name + (is_set ? " set" : " cleared"),
            "condition", json{{"name", which.name}, {"set", is_set}}};
}

event message_event(const message& what, std::uint64_t id) {
    const auto [priority, severity] = what.text.starts_with('E')   ? std::pair(error_level, "error")
                                      : what.text.starts_with('W') ? std::pair(warning_level, "warning")
                                                                   : std::pair(info_level, "info");
    const json more{{"code", code_of(what.text)}, {"severity", severity}, {"text", what.text}};
    return {priority, what.date, what.text, "message", more, id};
}

event lost_event(unsigned long count, std::uint64_t id) {
    const std::string text = std::to_string(count) + " messages were lost";
    return {warning_level, now_date(), text, "lost", json{{"count", count}}, id, count};
}

std::string line_of(const event& what) {
    return what.date + (what.name == std::string_view("message") ? " message " : " ") + what.text;
}

std::string json_line(const event& what, const host_name& host, bool level_prefix) {
    json value{{"time", what.date}, {"host", host.name}, {"port", host.port}, {"event", what.name}};
    value.update(what.more);
    return (level_prefix ? "<" + std::to_string(what.priority) + ">" : "") + json_text(value);
}
