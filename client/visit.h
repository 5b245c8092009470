// One visit to a scheduler that leaves nothing behind: what it was asked, and every message that it handed over.
#pragma once

#include "answer.h"
#include "snapshot.h"

namespace client {

class conversation;
struct settings;

// What the answers say besides the status: connections, modules, timer jobs. A word that the scheduler does not
// know leaves its part as it was. false when the conversation ended meanwhile; end then says how.
bool ask_details(conversation& talk, snapshot& known, answer_end& end);

// Leaves as many messages as a snapshot holds.
void keep_newest(std::vector<message>& messages);

// Writes the messages that a look received and could not keep to standard error: the last place that is left.
void report_unkept(const snapshot& known);

// Looks at the scheduler: from a follower's state file when one is at work; else by asking. Then a process of its
// own does the asking, waits for the answer however long that takes, and puts the messages into the spool: neither
// the limit of this call (settings' time-out, 10 s without one) nor the end of this process loses any.
// details: connections, modules, timer jobs as well.
snapshot look_at(settings chosen, bool details);

}  // namespace client
