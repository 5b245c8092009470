// This program links the daemon's parsers with the routines below in place of trace/trace.cpp. The parsers' trace lines
// then reach this program instead of the trace files.
#include "trace_capture.h"

#include "trace/trace.h"
#include "util/text.h"

#include <utility>

namespace {

std::string captured;

}  // namespace

int trprintf(const char* format, ...) {
    char line[trace_line_size];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    captured += line;
    return 0;
}

namespace check {

std::string take_trace() { return std::exchange(captured, ""); }

}  // namespace check
