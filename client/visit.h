// One visit of `check` or `metrics` to a scheduler, which gets its state and stores all messages that it sends.
#pragma once

#include "snapshot.h"

#include <string>
#include <string_view>
#include <vector>

namespace client {

struct settings;

// A command whose answer says something besides the status: connections, modules or timer jobs. A scheduler that does
// not know it leaves that part as it was.
struct detail {
    std::vector<std::string> words;
    void (*take)(std::string_view answer, snapshot& known);
};

const std::vector<detail>& details();

// Removes the oldest messages beyond the number that a snapshot may have.
void keep_newest(std::vector<message>& messages);

// Writes messages that could not be stored to standard error, so that they are not lost without a trace.
void report_unkept(const snapshot& known);

// Looks at the scheduler: from a follower's state file when one is at work; else by asking. Then a process of its
// own does the asking, waits for the answer however long that takes, and puts the messages into the spool: neither
// the limit of this call (settings' time-out, 10 s without one) nor the end of this process loses any.
// with_details: connections, modules, timer jobs as well.
snapshot look_at(settings chosen, bool with_details);

}  // namespace client
