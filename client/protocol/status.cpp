#include "protocol/status.h"

#include "term/text.h"

#include <algorithm>
#include <cstdio>

namespace client {

namespace {

constexpr std::size_t date_length = 25;  // 2026-11-16T15:47:03+00:00

}  // namespace

std::string now_date() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local);
    // strftime writes the offset as +hhmm, the scheduler as +hh:mm.
    return std::string(text, length).insert(length - 2, 1, ':');
}

std::optional<std::time_t> seconds_of(const std::string& date) {
    std::tm t{};
    // The length is checked because strptime accepts fewer digits.
    const bool has_length = date.size() == date_length;
    const char* const end = has_length ? strptime(date.c_str(), "%Y-%m-%dT%H:%M:%S%z", &t) : nullptr;
    if (end == nullptr || *end != '\0') {
        return std::nullopt;
    }
    // The date is the scheduler's local time. It is ahead of UTC by the offset, so the offset is subtracted.
    const long offset = t.tm_gmtoff;  // timegm changes it
    return timegm(&t) - offset;
}

std::string age_of(const std::string& date) {
    constexpr std::pair<long, char> units[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}};
    const std::time_t then = seconds_of(date).value_or(0);
    if (then == 0) {
        return "never";
    }
    // The scheduler's clock may be ahead of this one.
    long left = std::max(0L, static_cast<long>(std::time(nullptr) - then));
    std::string text;
    int shown = 0;
    for (const auto& [seconds, sign] : units) {
        // Starts at the largest unit that is not 0; an age below one second is "0s".
        if (shown < 2 && (shown != 0 || left >= seconds || seconds == 1)) {
            text += (shown++ != 0 ? " " : "") + std::to_string(left / seconds) + sign;
            left %= seconds;
        }
    }
    return text;
}

status_report parse_status(std::string_view answer) {
    status_report report;
    each_line(answer, [&report](const std::string& line) {
        // One byte more than the widths in the format, for the final zero.
        char name[16];
        char date[32];
        unsigned long lost = 0;
        // Messages are checked first, because their text may look like the other two kinds of lines.
        if (line.size() > date_length && line[date_length] == ';' &&
            seconds_of(line.substr(0, date_length))) {
            report.messages.push_back({line.substr(0, date_length), line.substr(date_length + 1)});
        } else if (std::sscanf(line.c_str(), "W0100: message queue overflow, %lu messages", &lost) == 1) {
            // A sum, because stored messages and a new answer may each have such a line.
            report.lost += lost;
        } else if (std::sscanf(line.c_str(), "%15s %31s", name, date) == 2 && seconds_of(date)) {
            report.conditions.push_back({name, date});
        }
    });
    return report;
}

std::vector<hmi_row> parse_show_ip(std::string_view answer) {
    std::vector<hmi_row> rows;
    each_line(answer, [&rows](const std::string& line) {
        // The user's name may contain any text that a client sent, so it is all between the two marks.
        const std::size_t user = line.find(" user=");
        const std::size_t login = line.rfind(" login=");
        if (!line.starts_with("ip=") || user == std::string::npos || login == std::string::npos ||
            login < user + 6) {
            return;
        }
        std::string date = line.substr(login + 7, date_length - 6);  // "2026/11/16 15:47:03"
        std::replace(date.begin(), date.end(), '/', '-');
        std::replace(date.begin(), date.end(), ' ', 'T');
        if (seconds_of(date + "+00:00")) {
            rows.push_back({line.substr(3, user - 3), line.substr(user + 6, login - user - 6), date,
                            line.ends_with(" locked=1")});
        }
    });
    return rows;
}

}  // namespace client
