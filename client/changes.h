// The changes from one status to the next.
#pragma once

#include "report.h"

#include <vector>

namespace client {

struct condition_changes {
    std::vector<condition> set;  // also those that were set anew, at another time
    std::vector<condition> cleared;
};

condition_changes compare(const std::vector<condition>& before, const std::vector<condition>& now);

// Returns a dated line for each condition that was set or cleared, each message, and lost messages. before: the
// conditions of the previous status.
std::vector<message> changes(const std::vector<condition>& before, const status_report& report);

}  // namespace client
