// Formats a snapshot for collectors of metrics.
#pragma once

#include <cstddef>
#include <string>

namespace client {

struct snapshot;

// The two text formats differ in how they declare a counter.
enum class exposition {
    common,       // valid in both formats: counters have no declared type
    prometheus,   // text format 0.0.4, for the textfile collector
    openmetrics,  // 1.0.0
};

// A fault of this client gives no sched_up, which would say that the scheduler does not answer. to_file: the text
// remains when nothing can be collected any more, so it says with sched_collect_error whether that was possible.
std::string expose(const snapshot& known, exposition format, bool to_file = false);

// Returns the exporter's own metrics. errors: number of requests that were answered with a fault of the exporter.
// targets: number of schedulers that were asked since the start. silent: how many of these have not answered yet.
std::string expose_exporter(unsigned long errors, std::size_t targets, std::size_t silent, exposition format);

// Returns the media type of that format.
const char* media_type_of(exposition format);

}  // namespace client
