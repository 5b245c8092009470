// Asks many hosts side by side in one thread.
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

    // What came from a host, known by its number in the list. They may call ask() and close().
    struct listener {
        std::function<void(std::size_t host, std::string_view text)>
            output;  // of the command, line ends are LF
        std::function<void(std::size_t host, const answer_end& end)>
            ended;  // the command, or an idle connection; after silence a command may end once more
    };

    // hosts and chosen must outlive this. At most `parallel` commands are under way at once. A login takes the
    // password from chosen.password_file; without one it is refused when chosen names several hosts. Raises the limit for descriptors as needed.
    many_hosts(const std::vector<host_name>& hosts, const settings& chosen, std::size_t parallel,
               listener told);

    // Asks as soon as there is a place. The connection stays open until close(), which gives up a command that is
    // under way without a word.
    void ask(std::size_t host, std::vector<std::string> words);
    void close(std::size_t host);

    // Fetches the status and quits as one command, when none is under way; else it is to be called again once that
    // has ended. false when there is no connection, also in the middle of making one, which is given up.
    bool take_leave(std::size_t host);

    // Commands are under way or wait for a place.
    bool is_asking() const { return active_ != 0 || !queue_.empty(); }

    // Waits until something happens, on the descriptors of `others` too (their revents are set), or until the given
    // moment, and carries out what the hosts' connections are ready for.
    void step(std::span<pollfd> others, clock::time_point until);

private:
    struct question {
        std::size_t host;
        std::vector<std::string> words;
    };

    bool start_queued();
    void forgive_absence();
    void poll_links(std::span<const pollfd> others, clock::time_point until);
    void collect(std::size_t host, std::string_view output);
    clock::time_point next_deadline() const;

    password_source password_;
    std::size_t parallel_;
    listener told_;
    name_lookup names_;
    std::vector<std::unique_ptr<host_link>> links_;
    std::vector<bool> asking_;
    std::deque<question> queue_;
    std::size_t active_ = 0;
    clock::time_point listened_ = clock::now();
    std::vector<pollfd> polled_;
    std::vector<std::size_t> polled_hosts_;
};

}  // namespace client
