// Parsing the answer of `status`, and its dates.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The conditions that `status` shows while they are set, in its order.
constexpr const char* condition_names[] = {"error", "prevent", "diag", "conf", "patrol", "snap", "korvo", "padiag"};

// False for the two that say that a timer job exists, and for the date of the configuration.
constexpr bool is_fault(std::string_view condition) {
    return condition != "patrol" && condition != "padiag" && condition != "confdate";
}

struct condition {
    std::string name;
    std::string since;  // ISO 8601 with zone offset, as the scheduler writes it
    bool operator==(const condition&) const = default;
};

struct message {
    std::string date;  // as above
    std::string text;
};

struct status_report {
    std::vector<condition> conditions;  // in the scheduler's order; always includes "confdate"
    std::vector<message> messages;      // oldest first
    unsigned long lost = 0;             // messages dropped because they were not fetched in time
};

// Lines end with LF, except perhaps the last. Lines of any other form are skipped.
status_report parse_status(std::string_view answer);

// Returns the current time as such a date.
std::string now_date();

// Converts such a date to seconds since the epoch.
std::optional<std::time_t> seconds_of(const std::string& date);

// Returns the age of a date in its two largest units; "never" for the epoch.
std::string age_of(const std::string& date);
