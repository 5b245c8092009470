#include "watch/line_writer.h"

#include "term/output.h"
#include "term/text.h"

#include <cerrno>
#include <unistd.h>

namespace client {

bool line_writer::write(const std::string& line) {
    if (is_open_ && !write_all(STDOUT_FILENO, line)) {
        is_open_ = false;
        exit_code_ = errno == EPIPE || errno == EINTR ? 0 : fail_output();
    }
    return is_open_;
}

bool line_writer::print(const std::string& text) {
    return write((isatty(STDOUT_FILENO) == 1 ? fit(text) : text) + "\n");
}

}  // namespace client
