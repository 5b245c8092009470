// The switch of system-log forwarding, and the module command that forwards.
#pragma once

#include "util/relaxed.h"

// 1 while forwarding is on. Written by syslog_enable_check, read by the watcher; no lock.
extern relaxed<int> qmx_syslog_is_enable;

// 1 when the forwarding module asked for another run. Set by event_hard_error, cleared by the watcher; no lock.
extern relaxed<int> qmx_syslog_required_retry;

// Sets the switch: on when any section from "[section 0]" to "[section 99]" of pvo.ini has active = yes, off also without
// the file. Returns false, and changes nothing, when the file exists but cannot be read. Any thread.
bool update_forwarding_switch();

// The same. Returns 0.
int syslog_enable_check();

// Runs "qmx syslog forwarding"; exit code 2 asks for a retry. Returns the wait status or -1. Watcher thread.
int event_hard_error();
