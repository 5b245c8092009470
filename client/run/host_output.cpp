#include "run/host_output.h"

#include <cerrno>
#include <climits>
#include <poll.h>
#include <system_error>

namespace client {

namespace {

// Puts the prefix before each line. at_line_start is kept between calls, as a part may end inside a line.
std::string with_prefix(const std::string& prefix, std::string_view text, bool& at_line_start) {
    std::string out;
    for (const char c : text) {
        if (std::exchange(at_line_start, c == '\n')) {
            out += prefix;
        }
        out += c;
    }
    return out;
}

}  // namespace

host_output::host_output(const settings& chosen, listener written)
    : order_(chosen.hosts.size() == 1 ? order::stream
             : chosen.as_it_comes     ? order::by_line
                                      : order::by_host),
      listener_(std::move(written)),
      in_order_(order_ == order::by_host) {
    for (std::size_t host = 0; host < chosen.hosts.size(); ++host) {
        lanes_.push_back({.prefix = chosen.json ? "" : chosen.prefix_of(host)});
    }
}

void host_output::add(std::size_t host, std::string_view text) {
    lane& to = lanes_[host];
    const std::string lines = with_prefix(to.prefix, text, to.at_line_start);
    // With by_line, the start of an incomplete line waits, so that another host's output cannot get into the line.
    const std::size_t complete = order_ == order::stream    ? lines.size()
                                 : order_ == order::by_line ? lines.rfind('\n') + 1
                                                            : 0;
    to.text.add(std::string_view(lines).substr(0, complete));
    to.size += complete;
    if (complete != 0) {
        release(host);
    }
    to.text.add(std::string_view(lines).substr(complete));
    to.size += lines.size() - complete;
}

void host_output::mark(std::size_t host, std::uint64_t id) {
    lane& of = lanes_[host];
    if (id != 0) {
        of.marks.push_back({of.size, host, id});
    }
}

void host_output::end(std::size_t host) {
    lane& from = lanes_[host];
    // The next host's output, or the error message, must begin a new line.
    if (!from.prefix.empty() && !from.at_line_start) {
        add(host, "\n");
    }
    from.marks.push_back({from.size, host, 0});
    from.ended = true;
    if (!in_order_) {
        return release(host);
    }
    for (; first_ < lanes_.size() && lanes_[first_].ended; ++first_) {
        release(first_);
    }
}

void host_output::stop_ordering() {
    for (in_order_ = false; first_ < lanes_.size(); ++first_) {
        if (lanes_[first_].ended) {
            release(first_);
        }
    }
}

// Makes the text of a host ready to be written.
void host_output::release(std::size_t host) {
    lane& from = lanes_[host];
    for (const mark_row& m : std::exchange(from.marks, {})) {
        marks_.push_back({added_ + m.at, m.host, m.id});
    }
    while (!from.text.empty()) {
        const std::string_view piece = from.text.front();
        ready_.add(piece);
        from.text.pop(piece.size());
    }
    added_ += std::exchange(from.size, 0);
}

void host_output::report_written() {
    std::vector<std::uint64_t> shown;
    std::vector<std::size_t> ended;
    for (; !marks_.empty() && marks_.front().at <= written_; marks_.pop_front()) {
        const mark_row& first = marks_.front();
        if (first.id != 0) {
            shown.push_back(first.id);
        } else {
            ended.push_back(first.host);
        }
    }
    listener_(shown, ended);
}

void host_output::write_some() {
    for (report_written(); !ready_.empty(); report_written()) {
        pollfd output{STDOUT_FILENO, POLLOUT, 0};
        if (poll(&output, 1, 0) <= 0) {
            return;
        }
        // A pipe that is ready takes PIPE_BUF bytes without blocking.
        const std::string_view piece = ready_.front().substr(0, PIPE_BUF);
        const ssize_t n = write(STDOUT_FILENO, piece.data(), piece.size());
        if (n < 0 && errno != EINTR && errno != EAGAIN) {
            throw std::system_error(errno, std::generic_category(), "cannot write");
        }
        if (n > 0) {
            written_ += static_cast<std::size_t>(n);
            ready_.pop(static_cast<std::size_t>(n));
        }
    }
}

}  // namespace client
