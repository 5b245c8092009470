#include "util/clock.h"

#include "util/text.h"

#include <cstdio>
#include <sys/times.h>

namespace {

std::timespec wall_clock() {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

struct iso_fields {
    int year, month, day, hour, minute, second;
};

std::time_t utc_seconds(const iso_fields& f) {
    std::tm parts{};
    parts.tm_year = f.year - 1900;
    parts.tm_mon = f.month - 1;
    parts.tm_mday = f.day;
    parts.tm_hour = f.hour;
    parts.tm_min = f.minute;
    parts.tm_sec = f.second;
    return timegm(&parts);
}

}  // namespace

std::time_t now_seconds() { return wall_clock().tv_sec; }

std::int64_t monotonic_ms() {
    std::timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

std::tm local_time(std::time_t when) {
    std::tm parts{};
    if (localtime_r(&when, &parts) == nullptr) {
        return {};
    }
    return parts;
}

const char* date_text(const std::tm& parts, char (&out)[date_size]) {
    format_text(out, "%04d/%02d/%02d %02d:%02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                parts.tm_hour, parts.tm_min, parts.tm_sec);
    return out;
}

std::clock_t get_tick(tick_stamp& stamp) {
    tms unused{};
    stamp.time = now_seconds();
    stamp.ticks = times(&unused);
    return stamp.ticks;
}

int timezone_offset(const std::tm& utc, const std::tm& local) {
    int utc_day = utc.tm_yday;
    int local_day = local.tm_yday;
    // Across a new year the days of the year cannot be compared: the later year's first day is 0, so the day before
    // it counts as -1.
    if (utc.tm_year < local.tm_year) {
        utc_day = -1;
    } else if (utc.tm_year > local.tm_year) {
        local_day = -1;
    }
    return (utc.tm_min - local.tm_min) + (utc_day * 24 + utc.tm_hour) * 60 - (local_day * 24 + local.tm_hour) * 60;
}

int get_timezone_offset() {
    const std::time_t now = now_seconds();
    std::tm utc{};
    gmtime_r(&now, &utc);
    return timezone_offset(utc, local_time(now));
}

int date2iso8601(std::time_t when, char (&out)[iso_size]) {
    const std::tm parts = local_time(when);
    int offset = get_timezone_offset();
    char sign = '-';
    if (offset <= 0) {
        sign = '+';
        offset = -offset;
    }
    return static_cast<int>(format_text(out, "%04d-%02d-%02dT%02d:%02d:%02d%c%02d:%02d", parts.tm_year + 1900,
                                        parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec,
                                        sign, offset / 60, offset % 60));
}

std::time_t iso2date(const char* text) {
    iso_fields f{};
    int end = -1;  // set only when the text has its "Z"
    if (std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2dZ%n", &f.year, &f.month, &f.day, &f.hour, &f.minute, &f.second,
                    &end) == 6 &&
        end >= 0) {
        return utc_seconds(f);
    }
    char sign = '\0';
    int hours = 0;
    int minutes = 0;
    if (std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d%c%2d:%2d", &f.year, &f.month, &f.day, &f.hour, &f.minute, &f.second,
                    &sign, &hours, &minutes) != 9) {
        return -1;
    }
    const std::time_t offset = (std::time_t{hours} * 60 + minutes) * 60;
    return sign == '+' ? utc_seconds(f) - offset : utc_seconds(f) + offset;
}
