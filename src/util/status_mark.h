// A moment, and a reported condition with the moment of its report.
#pragma once

#include "util/relaxed.h"

#include <cstdint>
#include <ctime>

// A moment, filled by get_tick. The two fields are read and written singly; nothing relies on both belonging together.
struct tick_stamp {
    relaxed<std::time_t> time;    // seconds since the epoch
    relaxed<std::clock_t> ticks;  // elapsed real time in clock ticks, as times() returns it
};

// One reported condition. Written by the start-up, event, timer and HMI threads, read by all, no lock.
struct status_mark {
    relaxed<std::uint8_t> set;  // 1 while the condition is reported
    tick_stamp stamp;  // when it was last set or confirmed; for confdate the configuration date itself
    relaxed<std::uint32_t> reports;  // calls of set_and_stamp; two within one clock tick have the same stamp
};
