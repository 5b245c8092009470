// `metrics`: prints or serves the metrics of the scheduler for collectors.
#pragma once

namespace client {

struct settings;

// Prints the metrics, writes them to --output, or serves them at --listen. Returns 0 when that succeeded. That includes
// a scheduler that is down, which the metric sched_up reports. When that is not known, for a fault of this client,
// nothing is printed, and the file gets the metric sched_collect_error.
int run_metrics(const settings& chosen);

}  // namespace client
