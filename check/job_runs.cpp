#include "job_runs.h"

#include "util/clock.h"

#include <algorithm>

namespace check {

namespace {

constexpr std::time_t minute = 60;
constexpr int minutes_per_hour = 60;
constexpr std::time_t horizon = (8 * 366 + 1) * 24 * 60 * minute;

}  // namespace

std::vector<std::time_t> next_runs(const job_record& job, std::time_t from, int count) {
    if (std::count(job.minute, job.minute + minutes_per_hour, 0) == minutes_per_hour) {
        return {};  // else each minute of eight years would be looked at
    }
    job_record any_minute = job;
    std::fill(std::begin(any_minute.minute), std::end(any_minute.minute), 1);
    std::vector<std::time_t> runs;
    std::time_t t = from - from % minute + minute;
    for (std::time_t end = t + horizon; t < end && static_cast<int>(runs.size()) < count;) {
        const std::tm now = local_time(t);
        if (is_job_due(job, now)) {
            runs.push_back(t);
            end = t + horizon;
        }
        // Nothing runs in the rest of an hour in which no minute would be due.
        t += is_job_due(any_minute, now) ? minute : (60 - now.tm_min) * minute;
    }
    return runs;
}

}  // namespace check
