// What the scheduler lists: its modules, its timer jobs, the networks that may connect.
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
    // The values at which the job may run; empty for the day field that leaves the decision to the other one.
    std::vector<int> minutes, hours, days, months, weekdays;
};

struct network_row {
    std::string address;  // dotted
    int prefix = 0;       // bits of the mask
};

// Each takes the text of an answer and leaves out lines that it does not know.
std::vector<module_row> parse_modules(std::string_view answer);    // of `modcntl`
std::vector<timer_job> parse_timer_jobs(std::string_view answer);  // of `debug timer`
std::vector<network_row> parse_networks(std::string_view answer);  // of `show allowed_ip`

}  // namespace client
