// The commands for monitoring systems.
#pragma once

struct settings;

// `check`: a plugin for monitoring engines, as the Monitoring Plugins guidelines define it. Prints one line for each
// host. Returns the exit code of the worst: 0 (OK), 3 (UNKNOWN), 1 (WARNING), 2 (CRITICAL).
int run_check(const settings& chosen);

// `metrics`: prints the metrics, or writes them to --output. Returns 0 when that succeeded.
// That includes a scheduler that is down, which the metric sched_up reports. When a fault of this client leaves that
// unknown, nothing is printed, and the file gets the metric sched_collect_error.
// Throws std::runtime_error when the file cannot be written.
int run_metrics(const settings& chosen);

// `metrics --listen`, an exporter for schedulers on hosts without their own collector: serves
// "/metrics?target=HOST[:PORT]" until SIGINT or SIGTERM and then returns 0. The one of schedctl replaces the program by
// schedctl-exporter, with these arguments. Throws std::runtime_error when it cannot.
int serve_metrics(const settings& chosen, char** arguments);
