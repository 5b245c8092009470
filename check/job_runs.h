// When a timer job runs.
#pragma once

#include "timer/job_table.h"

#include <ctime>
#include <vector>

namespace check {

// The next count full minutes after from at which the daemon would run the job, by local time: a minute that daylight
// saving leaves out does not come, and one that it repeats comes twice. Fewer when the job does not run for 8 years,
// the longest time between two leap days.
std::vector<std::time_t> next_runs(const job_record& job, std::time_t from, int count);

}  // namespace check
