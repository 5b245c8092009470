#include "protocol/listings.h"

#include "term/text.h"

#include <bit>
#include <cstdint>
#include <cstdio>

namespace client {

namespace {

// The columns of a line of slots that may contain a 1: slot 0 of days and months never matches, and the scheduler
// stores two more minutes, which never match.
struct slots {
    std::string_view label;
    std::vector<int> timer_job::*values;
    std::size_t first;
    std::size_t end;
};

constexpr slots all_slots[] = {{"minute", &timer_job::minutes, 0, 60},
                               {"hour", &timer_job::hours, 0, 24},
                               {"mday", &timer_job::days, 1, 32},
                               {"month", &timer_job::months, 1, 13},
                               {"wday", &timer_job::weekdays, 0, 7}};

void take_slots(std::string_view label, std::string_view digits, timer_job& job) {
    for (const slots& known : all_slots) {
        if (label != known.label) {
            continue;
        }
        std::vector<int>& values = job.*known.values;
        for (std::size_t i = known.first; i < known.end && i < digits.size(); ++i) {
            if (digits[i] == '1') {
                values.push_back(static_cast<int>(i));
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
