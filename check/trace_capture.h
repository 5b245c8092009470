// Collects the trace lines of the daemon's parsers, which are not written to files here.
#pragma once

#include <string>

namespace check {

// Returns the lines that the parsers traced since the last call, without time stamps.
std::string take_trace();

}  // namespace check
