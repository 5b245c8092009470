// Runs commands on many hosts at the same time, in one thread.
#pragma once

#include "host_link.h"
#include "login.h"

#include <deque>
#include <functional>
#include <memory>
#include <poll.h>
#include <span>

namespace client {

class many_hosts {
public:
    using clock = host_link::clock;

    // Gets the events of the hosts. host is the number in the list. Both functions may call ask() and close().
    struct listener {
        std::function<void(std::size_t host, std::string_view text)>
            output;  // of the command, line ends are LF
        std::function<void(std::size_t host, const answer_end& end)>
            ended;  // the command, or an idle connection; after silence a command may end once more
    };

    // hosts and chosen must outlive this. At most `parallel` commands are under way at once. A login takes the password
    // from chosen.password_file; without one it is refused when chosen names several hosts. Raises the limit for
    // descriptors as needed.
    many_hosts(const std::vector<host_name>& hosts, const settings& chosen, std::size_t parallel,
               listener told);

    // Starts a command as soon as fewer than `parallel` run. The connection stays open until close(), which gives up a
    // running command without calling ended.
    void ask(std::size_t host, std::vector<std::string> words);
    void close(std::size_t host);

    // Fetches the status and quits as one command, when none is under way; else (later) it is to be called again once
    // that has ended. A command that waits for its start is given up, and so is a connection that is being made
    // (impossible).
    farewell take_leave(std::size_t host);

    // True while commands run or wait for their start.
    bool is_asking() const { return active_ != 0 || !queue_.empty(); }

    // Waits for an event of the hosts or on the descriptors of `others` (whose revents are set), or until the given
    // time. Then handles the events of the hosts.
    void step(std::span<pollfd> others, clock::time_point until);

private:
    struct question {
        std::size_t host;
        std::vector<std::string> words;
    };

    bool start_queued();
    void forgive_absence();
    clock::time_point poll_links(std::span<const pollfd> others, clock::time_point until);
    void collect(std::size_t host, std::string_view output);
    clock::time_point next_deadline() const;

    password_source password_;
    std::size_t parallel_;
    listener told_;
    name_lookup names_;
    std::vector<std::unique_ptr<host_link>> links_;  // one for each host
    std::vector<bool> asking_;                       // a command of this host runs
    std::deque<question> queue_;                     // commands that wait for their start
    std::size_t active_ = 0;                         // commands that run
    clock::time_point listened_ = clock::now();      // when the hosts were last polled
    std::vector<pollfd> polled_;                     // kept between calls, to allocate only once
    std::vector<std::size_t> polled_hosts_;          // the hosts at the end of polled_
};

}  // namespace client
