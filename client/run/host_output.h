// The output of the hosts on its way to standard output. It waits here, so that a reader who does not read, such as a
// pager, keeps nobody waiting: the caller polls standard output and calls write_some().
#pragma once

#include "agent/spill_queue.h"
#include "net/host_list.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

class host_output {
public:
    enum class order {
        stream,   // for one host: at once
        by_host,  // all output of a host together when it has ended, in the order of the hosts
        by_line,  // complete lines of any host at once
    };

    struct listener {
        // These messages were written.
        std::function<void(const std::vector<std::uint64_t>& ids)> shown;
        // All output of a host that has ended was written.
        std::function<void(std::size_t host)> ended;
    };

    // prefixed: each line begins with the host's label.
    host_output(const std::vector<host_name>& hosts, bool prefixed, order how, listener events);

    void add(std::size_t host, std::string_view text);

    // The message with this number is in the text that was added so far, and not in what follows. 0 is ignored.
    void mark(std::size_t host, std::uint64_t id);

    // The host's command has ended. In a stream another one may follow.
    void end(std::size_t host);

    // From now on the output of a host is written when it has ended, whatever the others do.
    void stop_ordering();

    // Bytes that are ready to be written, and ends that are to be reported.
    bool is_waiting() const { return !turns_.empty(); }
    std::size_t waiting_bytes() const;

    // Writes what standard output takes without waiting. Throws std::system_error when it cannot be written.
    void write_some();

private:
    struct lane {
        std::string prefix;
        spill_queue text = {};
        bool at_line_start = true;
        bool ended = false;
        std::uint64_t added = 0;     // bytes, since the beginning
        std::uint64_t complete = 0;  // those up to the end of the last line
        std::uint64_t written = 0;
        std::deque<std::pair<std::uint64_t, std::uint64_t>> marks =
            {};  // end of a message in these bytes, and its number
    };
    // The output of this host is to be written up to this byte.
    struct turn {
        std::size_t host;
        std::uint64_t end;
    };

    void schedule(std::size_t host, std::uint64_t end);
    void finish_turn();
    void acknowledge(std::size_t host);

    std::vector<lane> lanes_;
    bool prefixed_;
    order order_;
    listener listener_;
    std::size_t first_ = 0;  // by_host: the first host that has no turn yet
    bool in_order_ = true;
    std::deque<turn> turns_;
};

}  // namespace client
