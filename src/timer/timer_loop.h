// The timer loop: what the scheduler does at every full minute.
#pragma once

#include "util/file_identity.h"

#include <ctime>

struct status_mark;

// The state that the loop keeps between passes.
struct timer_state {
    std::time_t last_check;          // last five-minute check; before the first, the start of the thread
    file_identity pvo_ini;           // version of pvo.ini that was seen last
    bool is_pvo_ini_unread = false;  // that version could not be read
};

// Sets the mark when the command of a timer job begins with name. Main thread, at start-up.
void mark_if_on_timer(status_mark& mark, const char* name);

// Thread body. Never returns.
void timer_main();

// One pass at time t, a full minute. Timer thread. Does not return when the event pipe no longer exists.
void timer_pass(timer_state& state, std::time_t t);

// Runs, or parks, every job due at t. Timer thread.
void timer_execute(std::time_t t);
