// The advisory lock that lets one operator at a time work.
#pragma once

#include "comm/hmi_table.h"

#include <atomic>

// The HMI that holds the lock, or null. Written by the holder's thread, read without a lock by "show ip".
extern std::atomic<hmistruc*> last_locked_hmi;

// Handlers of "lock" and "unlock". Further words are ignored. The connection's own thread.
void do_hmilock(hmistruc& hmi, int argc, char* argv[]);
void do_hmiunlock(hmistruc& hmi, int argc, char* argv[]);

// Releases the lock when a connection ends while it holds it. The connection's own thread.
void release_operator_lock();
