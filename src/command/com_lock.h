// The lock of module commands.
#pragma once

#include "util/fair_mutex.h"

// Held for the whole of one module run and the drain of parked timer commands after it; taken before any other lock.
// Threads get it in the order in which they asked, so each waits for the runs that were asked for before its own.
inline constinit fair_mutex com_lock;
