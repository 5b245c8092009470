// How `check`, `metrics` and the exporter get the state of schedulers.
#pragma once

#include "agent/agent.h"
#include "protocol/answer.h"
#include "watch/snapshot.h"

#include <string>
#include <string_view>
#include <vector>

namespace client {

struct settings;

// The requests to one scheduler and what their answers say. Its owner asks words() and hands on what comes, until
// ended() returns false.
class collection {
public:
    // with_details: connections, modules and timer jobs before the status.
    explicit collection(bool with_details);

    const std::vector<std::string>& words() const;

    void output(std::string_view text) { answer_ += text; }
    void status(const status_answer& answer);

    // The end of the command, or outcome::no_answer to give up. Returns true when the next words() are to be asked.
    bool ended(const command_result& end);

    // Adds what this machine knows of the host, when ended() has returned false.
    void complete(const host_name& host);

    snapshot known;

private:
    std::size_t next_;  // index in details(); behind the last one: the status
    std::string answer_;
};

// True when it is not known whether the scheduler answers: a fault of this client, its store or its password.
bool is_own_fault(const snapshot& known);

// Returns the state of each host of the settings, in their order: from a follower's state file when it is fresh, else
// by asking. Waits until the time-out of the settings, or default_timeout, is over; the agent then goes on alone.
// Throws std::system_error.
std::vector<snapshot> collect(const settings& chosen, bool with_details);

// Writes messages that could not be stored to standard error, so that they are not lost without a trace.
void report_unstored(const status_answer& answer);

// The settings for an agent that collects: it stores all that it receives, and shows nothing.
agent_options collecting(const settings& chosen, stored_messages stored);

}  // namespace client
