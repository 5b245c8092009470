// The listings of the scheduler: its modules, its timer jobs, the networks that may connect.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace client {

struct module_row {
    std::string name;
    bool on = false;
};

struct timer_job {
    std::string command;  // with its tabs
    // The values that match; empty for a day field when the other one decides.
    std::vector<int> minutes, hours, days, months, weekdays;
};

struct network_row {
    std::string address;  // dotted
    int prefix = 0;       // bits of the mask
};

// Each parses the text of an answer and skips lines that it does not know.
std::vector<module_row> parse_modules(std::string_view answer);    // of `modcntl`
std::vector<timer_job> parse_timer_jobs(std::string_view answer);  // of `debug timer`
std::vector<network_row> parse_networks(std::string_view answer);  // of `show allowed_ip`

}  // namespace client
