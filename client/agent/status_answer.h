// The answer of `status`, as the agent hands it on.
#pragma once

#include "mail/box.h"
#include "protocol/status.h"

#include <cstdint>
#include <string>
#include <vector>

namespace client {

struct status_answer {
    std::uint32_t request = 0;       // the request that this answers; 0 for the last `status`
    std::vector<status_line> lines;  // the messages that were stored before come first, then the answer
    bool complete = false;           // false: the answer broke off, or there is none
    bool last = false;               // of the last `status` before the connection ends
    double seconds = 0;              // that the scheduler took for it
    message_totals totals;           // of this scheduler, as the mailbox has counted them
    std::string unstored;            // why the new messages could not be stored; empty when they are
    std::string notice;              // for the operator, such as who holds messages; lines end with LF
};

}  // namespace client
