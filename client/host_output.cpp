#include "host_output.h"

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

host_output::host_output(const std::vector<host_name>& hosts, bool prefixed, bool in_order, writer write,
                         end_listener ended)
    : prefixed_(prefixed), in_order_(in_order), write_(std::move(write)), ended_(std::move(ended)) {
    for (const host_name& host : hosts) {
        lanes_.push_back({host.label, true, false, "", {}});
    }
}

void host_output::add(std::size_t host, std::string_view text) {
    lane& from = lanes_[host];
    const std::string lines = with_prefix(prefixed_ ? from.label + ": " : "", text, from.at_line_start);
    if (!in_order_) {
        write_complete_lines(from, lines);
    } else if (host == first_) {
        write_(lines);
    } else {
        from.waiting.add(lines);
    }
}

// The start of an incomplete line waits, so that another host's output cannot get into the line.
void host_output::write_complete_lines(lane& from, std::string_view text) {
    const std::size_t end = text.rfind('\n');
    const std::size_t complete = end == std::string_view::npos ? 0 : end + 1;
    if (complete != 0) {
        // What waits is the start of the first of these lines.
        write_waiting(from);
        write_(text.substr(0, complete));
    }
    from.waiting.add(text.substr(complete));
}

void host_output::write_waiting(lane& from) {
    from.waiting.drain([this](std::string_view text) { write_(text); });
}

void host_output::finish(std::size_t host) {
    write_waiting(lanes_[host]);
    // Last, so that an error message follows the output of its host.
    ended_(host, lanes_[host].problem);
}

void host_output::end(std::size_t host, const std::string& problem) {
    lane& from = lanes_[host];
    // The next host's output, or the error message, must begin a new line.
    if (!from.at_line_start) {
        add(host, "\n");
    }
    from.ended = true;
    from.problem = problem;
    if (!in_order_) {
        return finish(host);
    }
    // Writes all following hosts that have ended, then the output so far of the first one that has not.
    while (first_ < lanes_.size() && lanes_[first_].ended) {
        finish(first_++);
        if (first_ < lanes_.size()) {
            write_waiting(lanes_[first_]);
        }
    }
}

void host_output::stop_ordering() {
    if (!std::exchange(in_order_, false)) {
        return;
    }
    for (; first_ < lanes_.size(); ++first_) {
        lane& from = lanes_[first_];
        if (from.ended) {
            finish(first_);
            continue;
        }
        write_waiting(from);
        if (!from.at_line_start) {
            // This host still runs, and the next output may be another host's.
            write_("\n");
            from.at_line_start = true;
        }
    }
}

}  // namespace client
