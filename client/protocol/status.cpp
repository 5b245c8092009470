#include "protocol/status.h"

#include "term/text.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

constexpr std::size_t date_length = 25;  // 2026-11-16T15:47:03+00:00

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
    const long age = std::max(0L, static_cast<long>(std::time(nullptr) - then));
    const auto* const unit =
        std::find_if(std::begin(units), std::end(units) - 1, [age](const auto& u) { return age >= u.first; });
    std::string text = std::to_string(age / unit->first) + unit->second;
    if (unit != std::end(units) - 1) {
        text += " " + std::to_string(age % unit->first / unit[1].first) + unit[1].second;
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
        if (seconds_of(line.substr(0, date_length)) && line[date_length] == ';') {
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
