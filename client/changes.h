// What is new in a status since the one before.
#pragma once

#include "report.h"

#include <vector>

namespace client {

// Conditions that were set and cleared, messages and losses, each as a dated line. before: the conditions then.
std::vector<message> changes(const std::vector<condition>& before, const status_report& report);

}  // namespace client
