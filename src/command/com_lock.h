// The lock of module commands.
#pragma once

#include "util/fair_mutex.h"

// Held during one module run and the run of the parked timer commands after it. Taken before any other lock.
// Threads get it in the order in which they asked for it, so a thread waits only for runs that were asked for earlier.
inline constinit fair_mutex com_lock;
