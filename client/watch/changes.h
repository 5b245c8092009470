// What an answer of `status` brings, compared with the conditions before it.
#pragma once

#include "agent/status_answer.h"
#include "protocol/status.h"

#include <cstdint>
#include <vector>

namespace client {

struct condition_changes {
    std::vector<condition> set;  // also those that were set anew, at another time
    std::vector<condition> cleared;
};

// False for conditions that every status has or that only say that a job exists: "confdate", "patrol" and "padiag".
bool is_alarm(const condition& which);

condition_changes compare(const std::vector<condition>& before, const std::vector<condition>& now);

// A message, or a count of messages that the scheduler or the mailbox has dropped.
struct received_message {
    std::uint64_t id = 0;  // in the mailbox; 0: it is not there, so nothing has to be acknowledged
    message what;          // for a count: the current time, and a text for people
    unsigned long lost = 0;
};

struct status_update {
    std::vector<condition> conditions;  // of this answer when it is complete, else those before it
    condition_changes changes;
    std::vector<received_message> messages;
};

// An answer that broke off lacks conditions, which would look cleared: it changes none.
status_update update_of(const std::vector<condition>& before, const status_answer& answer);

}  // namespace client
