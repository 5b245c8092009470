// The listings of the scheduler: its modules, its timer jobs, its connections, the networks that may connect.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

struct module_row {
    std::string name;
    bool on = false;
};

// Each parses the text of an answer and skips lines that it does not know.
std::vector<module_row> parse_modules(std::string_view answer);  // of `modcntl`

// These return a JSON array with an object for each row.
nlohmann::ordered_json parse_timer_jobs(std::string_view answer);   // of `debug timer`
nlohmann::ordered_json parse_connections(std::string_view answer);  // of `show ip`
nlohmann::ordered_json parse_networks(std::string_view answer);     // of `show allowed_ip`
