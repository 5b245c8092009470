// The trace of the daemon's parsers, kept for us instead of written to files.
#pragma once

#include <string>

namespace check {

// What the parsers have traced since the last call: their lines, without time stamps.
std::string take_trace();

}  // namespace check
