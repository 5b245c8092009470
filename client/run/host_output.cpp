#include "run/host_output.h"

#include "term/text.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

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
    : by_line_(chosen.as_it_comes), listener_(std::move(written)), in_order_(chosen.hosts.size() > 1 && !by_line_) {
    for (std::size_t host = 0; host < chosen.hosts.size(); ++host) {
        lanes_.push_back({.prefix = chosen.json ? "" : chosen.prefix_of(host)});
    }
}

void host_output::add(std::size_t host, std::string_view text) {
    lane& to = lanes_[host];
    const std::string lines = with_prefix(to.prefix, text, to.at_line_start);
    to.text.add(lines);
    // Of several hosts, the start of an incomplete line waits, so that another host's output cannot get into the line.
    const std::size_t complete = lanes_.size() == 1 ? lines.size() : by_line_ ? lines.rfind('\n') + 1 : 0;
    if (complete != 0) {
        release(host, to.added + complete);
    }
    to.added += lines.size();
}

void host_output::mark(std::size_t host, std::uint64_t id) {
    if (id != 0) {
        lanes_[host].marks.emplace_back(lanes_[host].added, id);
    }
}

void host_output::end(std::size_t host) {
    lane& from = lanes_[host];
    // The next host's output, or the error message, must begin a new line.
    if (!from.prefix.empty() && !from.at_line_start) {
        add(host, "\n");
    }
    from.marks.emplace_back(from.added, 0);
    from.ended = true;
    if (!in_order_) {
        return release(host, from.added);
    }
    for (; first_ < lanes_.size() && lanes_[first_].ended; ++first_) {
        release(first_, lanes_[first_].added);
    }
}

void host_output::stop_ordering() {
    for (in_order_ = false; first_ < lanes_.size(); ++first_) {
        if (lanes_[first_].ended) {
            release(first_, lanes_[first_].added);
        }
    }
}

void host_output::release(std::size_t host, std::size_t until) {
    if (!turns_.empty() && turns_.back().host == host) {
        turns_.back().until = until;
    } else {
        turns_.push_back({host, until});
    }
}

void host_output::report_written(std::size_t host) {
    lane& of = lanes_[host];
    std::vector<std::uint64_t> shown;
    std::size_t ends = 0;
    for (; !of.marks.empty() && of.marks.front().first <= of.written; of.marks.pop_front()) {
        if (const std::uint64_t id = of.marks.front().second; id != 0) {
            shown.push_back(id);
        } else {
            ++ends;
        }
    }
    listener_(host, shown, ends);
}

void host_output::write_some() {
    while (!turns_.empty()) {
        const auto [host, until] = turns_.front();
        lane& from = lanes_[host];
        report_written(host);
        if (from.written == until) {
            turns_.pop_front();
            continue;
        }
        const std::string_view piece = from.text.front().substr(0, until - from.written);
        const ssize_t n = write_ready(STDOUT_FILENO, piece, 0);
        if (n < 0) {
            throw std::system_error(errno, std::generic_category(), "cannot write");
        }
        if (n == 0) {
            return;
        }
        from.written += static_cast<std::size_t>(n);
        from.text.pop(static_cast<std::size_t>(n));
    }
}
