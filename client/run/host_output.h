// The output of the hosts on its way to standard output. It waits here, so that a slow reader, such as a pager, delays
// no host: the caller polls standard output and calls write_some().
#pragma once

#include "agent/byte_queue.h"
#include "options/options.h"

#include <deque>
#include <functional>

class host_output {
public:
    // Called when output of the host may have been written. shown: its messages that are written now; may be empty.
    // ends: how many of its commands have ended with all their output written.
    using listener = std::function<void(std::size_t host, const std::vector<std::uint64_t>& shown, std::size_t ends)>;

    host_output(const settings& chosen, listener written);

    void add(std::size_t host, std::string_view text);

    // The text that was added so far ends with the message with this number. 0 is ignored.
    void mark(std::size_t host, std::uint64_t id);

    // The host's command has ended. In a session another one may follow.
    void end(std::size_t host);

    // From now on the output of a host is written when it has ended, whatever the others do.
    void stop_ordering();

    // There are bytes that may be written, or ends that are to be reported.
    bool is_waiting() const { return !turns_.empty(); }
    std::size_t waiting_bytes(std::size_t host) const { return lanes_[host].added - lanes_[host].written; }

    // Writes what standard output takes without waiting. Throws std::system_error when it cannot be written.
    void write_some();

private:
    // The output of this host may be written up to there.
    struct turn {
        std::size_t host;
        std::size_t until;
    };

    // The counts, also that of a turn, are bytes since the beginning.
    struct lane {
        std::string prefix;  // of each line
        byte_queue text = {};
        std::size_t added = 0;
        std::size_t written = 0;
        // Where a message ends, or (id 0) the command.
        std::deque<std::pair<std::size_t, std::uint64_t>> marks = {};
        bool at_line_start = true;
        bool ended = false;
    };

    void release(std::size_t host, std::size_t until);
    void report_written(std::size_t host);

    // True: complete lines of any host at once. False: all output of a host together when it has ended.
    const bool by_line_;
    const listener listener_;
    std::vector<lane> lanes_;
    std::deque<turn> turns_;  // the first is being written
    bool in_order_;           // output is released in the order of the hosts
    std::size_t first_ = 0;   // in_order_: the first host that was not released
};
