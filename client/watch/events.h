// The lines that `watch` writes without a terminal, and the JSON lines of `follow`.
#pragma once

#include "net/host_list.h"
#include "protocol/answer.h"
#include "protocol/status.h"

#include <nlohmann/json.hpp>

// Priorities of syslog(3).
enum level : int { error_level = 3, warning_level = 4, notice_level = 5, info_level = 6 };

// One thing that has happened at a host.
struct event {
    level priority;
    std::string date;
    std::string text;             // for people, such as "condition error set"; of a message, the message itself
    const char* name;             // for programs: "connected", "disconnected", "condition", "message" or "lost"
    nlohmann::ordered_json more;  // the further members of its JSON
    std::uint64_t id = 0;         // in the mailbox; 0: it is not there, so nothing has to be acknowledged
    unsigned long lost = 0;       // number of messages that the scheduler or the mailbox has dropped

    bool is_message() const { return lost != 0 || name == std::string_view("message"); }  // else a change
};

event connected_event();
event failed_event(const command_result& why);
event condition_event(const condition& which, bool is_set);
event message_event(const message& what, std::uint64_t id);
event lost_event(unsigned long count, std::uint64_t id);

// One line for people, without its line end.
std::string line_of(const event& what);

// One line of JSON. level_prefix: it begins with its priority, such as "<3>", for the journal and logger(1).
std::string json_line(const event& what, const host_name& host, bool level_prefix);
