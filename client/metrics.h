// `metrics`: what is known of the scheduler as text for collectors.
#pragma once

namespace client {

struct settings;

// Prints it, writes it into --output, or serves it at --listen. 0 when that succeeded, also when the scheduler is
// not up, which is told as a metric.
int run_metrics(const settings& chosen);

}  // namespace client
