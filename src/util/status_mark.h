// A time stamp, and a reported condition with its time stamp.
#pragma once

#include "util/relaxed.h"

#include <cstdint>
#include <ctime>

// A time stamp, filled by get_tick. The two fields are read and written one at a time; no code needs both of them from
// the same moment.
struct tick_stamp {
    relaxed<std::time_t> time;    // seconds since the epoch
    relaxed<std::clock_t> ticks;  // elapsed real time in clock ticks, as times() returns it
};

// One reported condition. The main, event, timer and HMI threads write it, all threads read it, without a lock.
struct status_mark {
    relaxed<std::uint8_t> set;  // 1 while the condition is reported
    tick_stamp stamp;           // when it was last set or checked; for confdate the date of the configuration
    relaxed<std::uint32_t> reports;  // calls of set_and_stamp; tells reports within one clock tick apart
};
