// How `check`, `metrics` and the exporter get the state of schedulers.
#pragma once

#include "agent/agent.h"
#include "watch/snapshot.h"

#include <vector>

namespace client {

struct settings;

// Returns the state of each host of the settings, in their order: from a follower's state file when it is fresh, else
// by asking. Waits until the time-out of the settings, or default_timeout, is over; the agent then goes on alone.
// Throws std::system_error.
std::vector<snapshot> collect(const settings& chosen, bool with_details);

// Writes messages that could not be stored to standard error, so that they are not lost without a trace.
void report_unstored(const status_answer& answer);

// The settings for an agent that collects: it stores all that it receives, and shows nothing.
agent_options collecting(const settings& chosen, stored_messages stored);

}  // namespace client
