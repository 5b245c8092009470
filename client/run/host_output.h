// The output of the hosts on its way to standard output. It waits here, so that a reader who does not read, such as a
// pager, keeps nobody waiting: the caller polls standard output and calls write_some().
#pragma once

#include "agent/spill_queue.h"
#include "options/options.h"

#include <deque>
#include <functional>

namespace client {

class host_output {
public:
    // shown: messages that were written. ended: hosts whose command has ended and whose output is all
    // written. Both may be empty.
    using listener =
        std::function<void(const std::vector<std::uint64_t>& shown, const std::vector<std::size_t>& ended)>;

    host_output(const settings& chosen, listener written);

    void add(std::size_t host, std::string_view text);

    // The text that was added so far ends with the message with this number. 0 is ignored.
    void mark(std::size_t host, std::uint64_t id);

    // The host's command has ended. In a stream another one may follow.
    void end(std::size_t host);

    // From now on the output of a host is written when it has ended, whatever the others do.
    void stop_ordering();

    // Bytes that are ready to be written, and ends that are to be reported.
    bool is_waiting() const { return waiting_bytes() != 0 || !marks_.empty(); }
    std::size_t waiting_bytes() const { return added_ - written_; }

    // Writes what standard output takes without waiting. Throws std::system_error when it cannot be written.
    void write_some();

private:
    enum class order {
        stream,   // for one host: at once
        by_host,  // all output of a host together when it has ended, in the order of the hosts
        by_line,  // complete lines of any host at once
    };

    // After `at` bytes a message ends, or (id 0) the command of the host.
    struct mark_row {
        std::size_t at;
        std::size_t host;
        std::uint64_t id;
    };

    // What is not ready to be written.
    struct lane {
        std::string prefix;  // of each line
        spill_queue text = {};
        std::size_t size = 0;  // bytes of text
        std::deque<mark_row> marks = {};
        bool at_line_start = true;
        bool ended = false;
    };

    void release(std::size_t host);
    void report_written();

    const order order_;
    const listener listener_;
    std::vector<lane> lanes_;
    std::size_t first_ = 0;  // by_host: the first host that was not released
    bool in_order_;
    spill_queue ready_;
    std::size_t added_ = 0;  // to ready_, since the beginning
    std::size_t written_ = 0;
    std::deque<mark_row> marks_;  // of the bytes of ready_
};

}  // namespace client
