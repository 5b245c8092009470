// The scheduler's clock: what happens at every full minute.
#pragma once

#include <ctime>

// What the loop remembers from pass to pass.
struct timer_state {
    std::time_t last_check;     // last five-minute check; at first the thread's start
    std::time_t pvo_mtime = 0;  // modification time of pvo.ini as last seen
};

// Thread body. Ends only with the process.
void timer_main();

// One pass at time t, a full minute. Timer thread; does not return when the event pipe is gone.
void timer_pass(timer_state& state, std::time_t t);

// Runs, or parks, every job due at t. Timer thread.
void timer_execute(std::time_t t);
