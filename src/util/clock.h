// Time: stamps and ISO 8601 text. All safe from any thread.
#pragma once

#include "util/status_mark.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>

constexpr std::size_t iso_size = 32;  // bytes for an ISO 8601 text; 25 characters for years up to 9999

// The wall clock in seconds since the epoch. Unlike time() it does not lag behind the end of a sleep.
std::time_t now_seconds();

// The monotonic clock in milliseconds, for durations.
std::int64_t monotonic_ms();

// A moment by which a wait must end. Setting the wall clock does not move it.
class deadline {
public:
    // ms: milliseconds from now.
    explicit deadline(std::int64_t ms) : end_(monotonic_ms() + ms) {}

    // Milliseconds left, 0 when it has passed: the time-out that poll takes.
    [[nodiscard]] int left_ms() const {
        return static_cast<int>(std::max<std::int64_t>(end_ - monotonic_ms(), 0));
    }

private:
    std::int64_t end_;  // monotonic clock, milliseconds
};

// Breaks a moment down as local time; a moment that has no such form gives all zeros.
std::tm local_time(std::time_t when);

constexpr std::size_t date_size = 32;  // bytes for a date as logs and listings show it

// Writes parts as "2026/11/24 22:03:42" and returns it.
const char* date_text(const std::tm& parts, char (&out)[date_size]);

// Fills stamp with the current moment. Returns its ticks.
std::clock_t get_tick(tick_stamp& stamp);

// Minutes to add to local time to get UTC, right now: -540 for a zone nine hours east of Greenwich.
int get_timezone_offset();

// The same for one moment broken down both ways.
int timezone_offset(const std::tm& utc, const std::tm& local);

// Writes when as local time with the zone's present offset, like 2013-02-07T15:45:12+09:00.
// Returns the number of characters.
int date2iso8601(std::time_t when, char (&out)[iso_size]);

// Reads ISO 8601 text with "Z" or an offset. Returns seconds since the epoch, or -1 for any other text.
std::time_t iso2date(const char* text);
