// A reported condition with its time stamp.
#pragma once

#include "util/clock.h"
#include "util/relaxed.h"

#include <cstdint>

// One reported condition. The main, event, timer and HMI threads write it, all threads read it, without a lock.
struct status_mark {
    relaxed<std::uint8_t> set;       // 1 while the condition is reported
    tick_stamp stamp;                // when it was last set or checked; for confdate the date of the configuration
    relaxed<std::uint32_t> reports;  // calls of set_and_stamp; tells reports within one clock tick apart
};
