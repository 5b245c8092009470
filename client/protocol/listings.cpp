#include "protocol/listings.h"

#include "protocol/status.h"
#include "term/text.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>

using json = nlohmann::ordered_json;

namespace {

// A line of slots and its first column that can match: slot 0 of days and months never does. The line of minutes has
// two more columns, which never match.
struct slots {
    std::string_view label;
    const char* member;  // of the object of the job
    std::size_t first;
};

constexpr slots all_slots[] = {{"minute", "minutes", 0},
                               {"hour", "hours", 0},
                               {"mday", "days", 1},
                               {"month", "months", 1},
                               {"wday", "weekdays", 0}};

constexpr std::size_t minutes = 60;  // no other line has more columns

json new_job(const std::string& command) {
    json job{{"command", command}};
    for (const slots& known : all_slots) {
        job[known.member] = json::array();  // stays empty for a day field when the other one decides
    }
    return job;
}

void take_slots(std::string_view label, std::string_view digits, json& job) {
    for (const slots& known : all_slots) {
        for (std::size_t i = known.first; label == known.label && i < std::min(digits.size(), minutes); ++i) {
            if (digits[i] == '1') {
                job[known.member].push_back(i);
            }
        }
    }
}

}  // namespace

std::vector<module_row> parse_modules(std::string_view answer) {
    std::vector<module_row> rows;
    each_line(answer, [&rows](const std::string& line) {
        // From the end: the state is the last word, whatever the name contains.
        const std::size_t blank = line.rfind(' ');
        const std::string state = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (state == "on" || state == "off") {
            rows.push_back({line.substr(0, blank), state == "on"});
        }
    });
    return rows;
}

json parse_timer_jobs(std::string_view answer) {
    json jobs = json::array();
    each_line(answer, [&jobs](const std::string& line) {
        // From the first quote to the last character, which is a quote too: the command may contain quotes.
        const std::size_t quote = line.find('"');
        if (quote != std::string::npos) {
            jobs.push_back(new_job(line.substr(quote + 1, line.size() - quote - 2)));
            return;
        }
        // The lines of slots follow the line of their job.
        const std::size_t equals = line.find('=');
        if (!jobs.empty() && equals != std::string::npos) {
            take_slots(std::string_view(line).substr(0, line.find_first_of(" =")),
                       std::string_view(line).substr(equals + 1), jobs.back());
        }
    });
    return jobs;
}

json parse_connections(std::string_view answer) {
    json rows = json::array();
    each_line(answer, [&rows](const std::string& line) {
        // The user's name may contain any text that a client sent, so it is all between the two marks.
        const std::size_t user = line.find(" user=");
        const std::size_t login = line.rfind(" login=");
        if (!line.starts_with("ip=") || user == std::string::npos || login == std::string::npos || login < user + 6) {
            return;
        }
        std::string date = line.substr(login + 7, 19);  // "2026/11/16 15:47:03", of the scheduler's clock
        std::replace(date.begin(), date.end(), '/', '-');
        std::replace(date.begin(), date.end(), ' ', 'T');
        if (seconds_of(date + "+00:00")) {
            rows.push_back({{"ip", line.substr(3, user - 3)},
                            {"user", line.substr(user + 6, login - user - 6)},
                            {"login", date},
                            {"locked", line.ends_with(" locked=1")}});
        }
    });
    return rows;
}

json parse_networks(std::string_view answer) {
    json rows = json::array();
    each_line(answer, [&rows](const std::string& line) {
        // The longest IPv4 address has 15 characters.
        char address[16];
        unsigned mask = 0;
        if (std::sscanf(line.c_str(), "%*d addr=%15s mask=%8x", address, &mask) == 2) {
            // The number of ones is the same in either byte order.
            rows.push_back({{"address", address}, {"prefix", std::popcount(static_cast<std::uint32_t>(mask))}});
        }
    });
    return rows;
}
