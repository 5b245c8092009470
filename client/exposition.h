// Formats a snapshot for collectors of metrics.
#pragma once

#include <string>

namespace client {

struct snapshot;

// The two text formats differ in how they declare a counter.
enum class exposition {
    common,       // valid in both formats: counters have no declared type
    prometheus,   // text format 0.0.4, for the textfile collector
    openmetrics,  // 1.0.0
};

std::string expose(const snapshot& known, exposition format);

// Returns the media type of that format.
const char* media_type_of(exposition format);

}  // namespace client
