// Waking at each multiple of an interval of the wall clock, whatever is done to the clock.
#pragma once

#include <cstdint>
#include <ctime>

// One sleep, in milliseconds.
struct past_sleep {
    std::int64_t began;   // wall clock before it
    std::int64_t ended;   // wall clock after it
    std::int64_t lasted;  // at least, by a clock that nobody sets
};

// The multiple of interval (milliseconds) that the wall clock has shown during the sleep, or -1.
std::int64_t multiple_shown(const past_sleep& sleep, std::int64_t interval);

// Gives a loop its rhythm. One thread.
class interval_sleep {
public:
    // interval: seconds, above 0.
    explicit interval_sleep(std::time_t interval) : interval_(std::int64_t{interval} * 1000) {}

    // Sleeps until the wall clock shows a multiple of the interval, and returns the wall clock (seconds) then. One
    // wake-up for each interval.
    std::time_t next();

private:
    std::int64_t interval_;   // milliseconds
    std::int64_t last_ = -1;  // the multiple for which next returned last, milliseconds
};
