// How `check`, `metrics` and the exporter get the state of schedulers.
#pragma once

#include "agent/channel.h"
#include "watch/snapshot.h"

struct settings;

// Returns the state of each host of the settings, in their order: from a follower's state file when it is fresh, else
// by asking. Waits until the time-out of the settings, or default_timeout, is over; the agent then goes on alone.
// Throws std::system_error.
std::vector<snapshot> collect(const settings& chosen);

// Writes messages that could not be stored to standard error, so that they are not lost without a trace.
void report_unstored(const status_answer& answer);
