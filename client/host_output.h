// The output of many hosts on standard output, in the order of the hosts or as it comes. Lines of two hosts never mix.
#pragma once

#include "host_list.h"
#include "text_queue.h"

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

class host_output {
public:
    using writer = std::function<void(std::string_view text)>;
    using end_listener = std::function<void(std::size_t host, const std::string& problem)>;

    // prefixed: each line begins with the host's label. in_order: a host's output waits until all hosts before it have
    // ended. write gets the output. ended is called when all output of a host is written; its problem is that of end().
    host_output(const std::vector<host_name>& hosts, bool prefixed, bool in_order, writer write,
                end_listener ended);

    void add(std::size_t host, std::string_view text);

    // Call when a host's command has ended. problem: the error, empty for a command that succeeded.
    void end(std::size_t host, const std::string& problem);

    // Writes all output that waits; later output is written as it comes.
    void stop_ordering();

private:
    struct lane {
        std::string label;
        bool at_line_start = true;
        bool ended = false;
        std::string problem;
        text_queue waiting;
    };

    void write_complete_lines(lane& from, std::string_view text);
    void write_waiting(lane& from);
    void finish(std::size_t host);

    std::vector<lane> lanes_;
    bool prefixed_;
    bool in_order_;
    std::size_t first_ = 0;  // in order: the host whose output is written at once
    writer write_;
    end_listener ended_;
};

}  // namespace client
