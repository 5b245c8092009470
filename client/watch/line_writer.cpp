#include "watch/line_writer.h"

#include "protocol/answer.h"
#include "term/text.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <system_error>
#include <unistd.h>

namespace client {

line_writer::line_writer(signal_watch& signals) : signals_(signals) {
    signals_.watch_reader_of(STDOUT_FILENO);
    std::signal(SIGPIPE, SIG_IGN);
}

bool line_writer::write(const std::string& line) {
    if (!is_open_ || write_until_signal(line, signals_)) {
        return is_open_;
    }
    is_open_ = false;
    if (errno != EPIPE && errno != EINTR) {
        std::fprintf(stderr, "schedctl: cannot write: %s\n", std::generic_category().message(errno).c_str());
        exit_code_ = exit_usage;
    }
    return false;
}

bool line_writer::print(const std::string& text) {
    // Not cut: an escape like \xHH makes four columns of a byte, so the limit is never reached.
    return write((isatty(STDOUT_FILENO) == 1 ? fit(text, text.size() * 4) : text) + "\n");
}

}  // namespace client
