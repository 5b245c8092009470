// Formats a snapshot for collectors of metrics, in the text format 0.0.4 of Prometheus.
#pragma once

#include <string>

struct snapshot;

// The media type of a reply over HTTP.
constexpr const char* exposition_type = "text/plain; version=0.0.4; charset=utf-8";

// Where the text goes. For standard output it is also valid in OpenMetrics 1.0.0. A file remains when nothing can be
// collected any more, so it says with sched_collect_error whether that was possible.
enum class destination { output, file, http };

// A fault of this client gives no sched_up, which would say that the scheduler does not answer.
std::string expose(const snapshot& known, destination to);

// Returns the exporter's own metrics. errors: number of requests that were answered with a fault of the exporter.
std::string expose_exporter(unsigned long errors);
