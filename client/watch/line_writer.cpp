#include "watch/line_writer.h"

#include "term/exit_code.h"
#include "term/output.h"
#include "term/text.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace client {

line_writer::line_writer(signal_watch& signals) : signals_(signals) {
    std::signal(SIGPIPE, SIG_IGN);
}

bool line_writer::write(std::string_view line) {
    while (is_open_ && !line.empty()) {
        pollfd ready[] = {{STDOUT_FILENO, POLLOUT, 0}, {signals_.fd(), POLLIN, 0}};
        if (poll(ready, 2, -1) < 0) {
            continue;
        }
        if (ready[0].revents == 0) {
            is_open_ = !signals_.take();
            continue;
        }
        const std::string_view piece = line.substr(0, PIPE_BUF);  // what a pipe takes without waiting
        const ssize_t n = ::write(STDOUT_FILENO, piece.data(), piece.size());
        is_open_ = n >= 0 || errno == EINTR || errno == EAGAIN;
        if (!is_open_ && errno != EPIPE) {
            complain("cannot write: " + std::generic_category().message(errno));
            exit_code_ = exit_usage;
        }
        line.remove_prefix(n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    return is_open_;
}

bool line_writer::print(const std::string& text) {
    // Not cut: an escape like \xHH makes four columns of a byte, so the limit is never reached.
    return write((isatty(STDOUT_FILENO) == 1 ? fit(text, text.size() * 4) : text) + "\n");
}

}  // namespace client
