// The scheduler's clock: what happens at every full minute.
#pragma once

#include "util/file_identity.h"

#include <ctime>

struct status_mark;

// What the loop remembers from pass to pass.
struct timer_state {
    std::time_t last_check;  // last five-minute check; at first the thread's start
    file_identity pvo_ini;   // pvo.ini as last seen
};

// Raises the mark when a timer job begins with name. Main thread, at start-up.
void mark_if_on_timer(status_mark& mark, const char* name);

// Thread body. Ends only with the process.
void timer_main();

// One pass at time t, a full minute. Timer thread; does not return when the event pipe is gone.
void timer_pass(timer_state& state, std::time_t t);

// Runs, or parks, every job due at t. Timer thread.
void timer_execute(std::time_t t);
