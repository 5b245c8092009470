// Time: stamps and ISO 8601 text. All safe from any thread.
#pragma once

#include "util/relaxed.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ctime>

// A time stamp, filled by get_tick. The two fields are read and written one at a time; no code needs both of them from
// the same moment.
struct tick_stamp {
    relaxed<std::time_t> time;    // seconds since the epoch
    relaxed<std::clock_t> ticks;  // elapsed real time in clock ticks, as times() returns it
};

constexpr std::size_t iso_size = 32;  // bytes for an ISO 8601 text; 25 characters for years up to 9999

// The wall clock in seconds since the epoch. time() can still return the old second just after a sleep; this does not.
std::time_t now_seconds();

// The monotonic clock in milliseconds, for durations.
std::int64_t monotonic_ms();

// The time by which a wait must end. Setting the wall clock does not change it.
class deadline {
public:
    // ms: milliseconds from now.
    explicit deadline(std::int64_t ms) : end_(monotonic_ms() + ms) {}

    // Milliseconds left, 0 when the time has passed: a time-out for poll.
    [[nodiscard]] int left_ms() const { return static_cast<int>(std::max<std::int64_t>(end_ - monotonic_ms(), 0)); }

private:
    std::int64_t end_;  // monotonic clock, milliseconds
};

// Converts seconds since the epoch to local time; all zeros for a time that cannot be converted.
std::tm local_time(std::time_t when);

constexpr std::size_t date_size = 32;  // bytes for a date in the form of logs and listings

// Writes parts as "2026/11/24 22:03:42" and returns it.
const char* date_text(const std::tm& parts, char (&out)[date_size]);

// Stores the current time in stamp. Returns its ticks.
std::clock_t get_tick(tick_stamp& stamp);

// The minutes to add to local time now to get UTC: -540 for a zone nine hours east of Greenwich.
int get_timezone_offset();

// The same for one moment, given as UTC and as local time.
int timezone_offset(const std::tm& utc, const std::tm& local);

// Writes when as local time with the zone's current offset, like 2013-02-07T15:45:12+09:00.
// Returns the number of characters.
int date2iso8601(std::time_t when, char (&out)[iso_size]);

// Reads ISO 8601 text with "Z" or an offset. Returns seconds since the epoch, or -1 for any other text.
std::time_t iso2date(const char* text);
