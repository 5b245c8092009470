// The lines that `watch` writes without a terminal, and the JSON lines of `follow`.
#pragma once

#include "net/host_list.h"
#include "protocol/answer.h"
#include "watch/inquiry.h"

#include <nlohmann/json.hpp>
#include <string>

namespace client {

// Priorities of syslog(3).
enum level : int { error_level = 3, warning_level = 4, notice_level = 5, info_level = 6 };

// One thing that has happened at a host.
struct event {
    level priority;
    std::string date;
    std::string text;  // for people, such as "condition error set"
    const char* name;  // for programs: "connected", "disconnected", "condition", "message" or "lost"
    nlohmann::ordered_json more;  // further members of that
};

event connected_event();
event failed_event(const command_result& why);
event condition_event(const condition& which, bool is_set);
event received_event(const received_message& what);

// One line of JSON. level_prefix: it begins with its priority, such as "<3>", for the journal and logger(1).
std::string json_line(const event& what, const host_name& host, bool level_prefix);

}  // namespace client
