#include "run/host_output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

// Puts the prefix before each line.
// at_line_start is kept between calls, as a part may end inside a line.
std::string with_prefix(const std::string& prefix, std::string_view text, bool& at_line_start) {
    std::string out;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::size_t length = end == std::string_view::npos ? text.size() : end + 1;
        if (at_line_start) {
            out += prefix;
        }
        out += text.substr(0, length);
        at_line_start = end != std::string_view::npos;
        text.remove_prefix(length);
    }
    return out;
}

}  // namespace

host_output::host_output(const std::vector<host_name>& hosts, bool prefixed, order how, listener events)
    : prefixed_(prefixed), order_(how), listener_(std::move(events)) {
    for (const host_name& host : hosts) {
        lanes_.push_back({.prefix = prefixed ? host.label + ": " : ""});
    }
}

void host_output::add(std::size_t host, std::string_view text) {
    lane& to = lanes_[host];
    const std::string lines = with_prefix(to.prefix, text, to.at_line_start);
    to.text.add(lines);
    if (const std::size_t end = lines.rfind('\n'); end != std::string::npos) {
        to.complete = to.added + end + 1;
    }
    to.added += lines.size();
    if (order_ == order::stream) {
        schedule(host, to.added);
    } else if (order_ == order::by_line) {
        // The start of an incomplete line waits, so that another host's output cannot get into the line.
        schedule(host, to.complete);
    }
}

void host_output::mark(std::size_t host, std::uint64_t id) {
    if (id != 0) {
        lanes_[host].marks.emplace_back(lanes_[host].added, id);
    }
}

void host_output::schedule(std::size_t host, std::uint64_t end) {
    if (!turns_.empty() && turns_.back().host == host) {
        turns_.back().end = end;
    } else {
        turns_.push_back({host, end});
    }
}

void host_output::end(std::size_t host) {
    lane& from = lanes_[host];
    // The next host's output, or the error message, must begin a new line.
    if (prefixed_ && !from.at_line_start) {
        add(host, "\n");
    }
    from.ended = true;
    if (order_ != order::by_host || !in_order_) {
        return schedule(host, from.added);
    }
    for (; first_ < lanes_.size() && lanes_[first_].ended; ++first_) {
        schedule(first_, lanes_[first_].added);
    }
}

void host_output::stop_ordering() {
    if (order_ != order::by_host || !std::exchange(in_order_, false)) {
        return;
    }
    for (; first_ < lanes_.size(); ++first_) {
        if (lanes_[first_].ended) {
            schedule(first_, lanes_[first_].added);
        }
    }
}

std::size_t host_output::waiting_bytes() const {
    std::uint64_t sum = 0;
    for (const lane& from : lanes_) {
        sum += from.added - from.written;
    }
    return sum;
}

void host_output::finish_turn() {
    const std::size_t host = turns_.front().host;
    turns_.pop_front();
    lane& from = lanes_[host];
    if (from.written == from.added && std::exchange(from.ended, false)) {
        listener_.ended(host);
    }
}

void host_output::acknowledge(std::size_t host) {
    lane& from = lanes_[host];
    std::vector<std::uint64_t> ids;
    for (; !from.marks.empty() && from.marks.front().first <= from.written; from.marks.pop_front()) {
        ids.push_back(from.marks.front().second);
    }
    if (!ids.empty()) {
        listener_.shown(ids);
    }
}

void host_output::write_some() {
    while (!turns_.empty()) {
        const turn now = turns_.front();
        lane& from = lanes_[now.host];
        if (from.written == now.end) {
            finish_turn();
            continue;
        }
        pollfd ready{STDOUT_FILENO, POLLOUT, 0};
        if (poll(&ready, 1, 0) <= 0) {
            return;
        }
        // A pipe that is ready takes so much without waiting.
        const std::size_t size = std::min<std::uint64_t>(PIPE_BUF, now.end - from.written);
        const std::string_view piece = from.text.front().substr(0, size);
        const ssize_t n = write(STDOUT_FILENO, piece.data(), piece.size());
        if (n < 0 && errno != EINTR && errno != EAGAIN) {
            throw std::system_error(errno, std::generic_category(), "cannot write");
        }
        if (n > 0) {
            from.written += static_cast<std::uint64_t>(n);
            from.text.pop(static_cast<std::size_t>(n));
            acknowledge(now.host);
        }
    }
}

}  // namespace client
