#include "protocol/listings.h"

#include "term/each_line.h"

#include <bit>
#include <cstdint>
#include <cstdio>

namespace client {

namespace {

// Returns the columns that contain a 1, from column first on: slot 0 of days and months never matches.
std::vector<int> values_of(std::string_view digits, std::size_t first, std::size_t end) {
    std::vector<int> values;
    for (std::size_t i = first; i < digits.size() && i < end; i++) {
        if (digits[i] == '1') {
            values.push_back(static_cast<int>(i));
        }
    }
    return values;
}

void take_slots(std::string_view label, std::string_view digits, timer_job& job) {
    if (label == "minute") {
        job.minutes = values_of(digits, 0, 60);  // the scheduler stores two more, which never match
    } else if (label == "hour") {
        job.hours = values_of(digits, 0, 24);
    } else if (label == "mday") {
        job.days = values_of(digits, 1, 32);
    } else if (label == "month") {
        job.months = values_of(digits, 1, 13);
    } else if (label == "wday") {
        job.weekdays = values_of(digits, 0, 7);
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

std::vector<timer_job> parse_timer_jobs(std::string_view answer) {
    std::vector<timer_job> jobs;
    each_line(answer, [&jobs](const std::string& line) {
        // From the first quote to the end of the line: the command may contain quotes.
        const std::size_t quote = line.find('"');
        if (line.starts_with("job#") && quote != std::string::npos && line.back() == '"' &&
            line.size() > quote + 1) {
            jobs.push_back({line.substr(quote + 1, line.size() - quote - 2), {}, {}, {}, {}, {}});
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

std::vector<network_row> parse_networks(std::string_view answer) {
    std::vector<network_row> rows;
    each_line(answer, [&rows](const std::string& line) {
        int number = 0;
        // The longest IPv4 address has 15 characters.
        char address[16];
        unsigned mask = 0;
        if (std::sscanf(line.c_str(), "%d addr=%15s mask=%8x", &number, address, &mask) == 3) {
            // The number of ones is the same in either byte order.
            rows.push_back({address, std::popcount(static_cast<std::uint32_t>(mask))});
        }
    });
    return rows;
}

}  // namespace client
