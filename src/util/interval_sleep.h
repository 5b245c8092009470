// Waking at each multiple of an interval of the wall clock, also when the clock is set.
#pragma once

#include <cstdint>
#include <ctime>

// One sleep, in milliseconds.
struct past_sleep {
    std::int64_t began;   // wall clock before it
    std::int64_t ended;   // wall clock after it
    std::int64_t lasted;  // its length by the monotonic clock, at least the length asked for
};

// Returns the last multiple of interval (milliseconds) that the wall clock showed during the sleep, or -1.
std::int64_t multiple_shown(const past_sleep& sleep, std::int64_t interval);

// The sleep of a loop that runs once each interval. Used by one thread.
class interval_sleep {
public:
    // interval: seconds, above 0.
    explicit interval_sleep(std::time_t interval) : interval_(std::int64_t{interval} * 1000) {}

    // Sleeps until the wall clock shows a multiple of the interval, then returns the wall clock (seconds). Wakes once
    // each interval.
    std::time_t next();

private:
    std::int64_t interval_;   // milliseconds
    std::int64_t last_ = -1;  // the multiple at which next last returned, milliseconds
};
