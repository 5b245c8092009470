// The engine: carries out commands on one host or many, in one thread with poll. It knows nothing of the mailbox.
#pragma once

#include "net/host_link.h"
#include "net/name_lookup.h"
#include "protocol/login.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <poll.h>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace client {

class host_pool {
public:
    using clock = host_link::clock;

    // Gets the events of the hosts. host is the number in the list. All may call any function except step().
    struct listener {
        // Output of the command under way; line ends are LF. of_status: it belongs to an answer of `status`.
        std::function<void(std::size_t host, std::string_view text, bool of_status)> output;
        // The command has ended, or (then no command was under way) the scheduler has closed an idle connection.
        std::function<void(std::size_t host, const command_result& end)> ended;
        // The command was not answered within its limit; it stays under way.
        std::function<void(std::size_t host)> late;
        // The scheduler requires a login and there is no password.
        std::function<void(std::size_t host)> password_needed;
    };

    // At most `parallel` commands are under way at once; a late one does not count. Raises the limit for descriptors.
    host_pool(std::vector<host_name> hosts, connect_options how, std::size_t parallel, listener events);

    std::size_t add(host_name host);
    std::size_t size() const { return links_.size(); }
    const host_name& host(std::size_t number) const { return links_[number]->host(); }

    // Starts a command as soon as fewer than `parallel` run. None of this host may be under way.
    void ask(std::size_t host, std::vector<std::string> words);

    // The last request of a connection: `status` and `quit` in one packet. None may be under way, except that one which
    // waits for the connection gives way. Without a connection ended() comes at once, with outcome::closed.
    void request_final_status(std::size_t host);

    // Closes the connection at once and gives up its command, without ended().
    void drop(std::size_t host);

    void password(std::size_t host, std::optional<std::string> text);

    // The state of the connection of a host, for the owner of its messages.
    const host_link& link(std::size_t host) const { return *links_[host]; }

    // Number of commands that run, also late ones, or wait for their start.
    std::size_t busy() const;

    // Waits for an event of the hosts or on the descriptors of `others` (whose revents are set), or until the given
    // time. Then handles the events of the hosts.
    void step(std::span<pollfd> others, clock::time_point until);

private:
    struct question {
        std::size_t host;
        std::vector<std::string> words;  // empty: the last request of the connection
    };

    void begin(question next);
    bool start_queued();
    void update(std::size_t host, const exchange::output& received = {});
    void poll_links(std::span<pollfd> others, clock::time_point until);
    void expire_late();

    const connect_options how_;
    const std::size_t parallel_;
    const listener listener_;
    password_store passwords_;
    name_lookup names_;
    std::vector<std::unique_ptr<host_link>> links_;
    std::set<std::size_t> open_;             // hosts whose link is not closed, or has an end to report
    std::set<std::size_t> counted_;          // hosts that run one of the `parallel` commands
    std::deque<question> queue_;             // commands that wait for their start
    std::deque<std::size_t> final_;          // hosts whose last request waits for the next step()
    std::vector<pollfd> polled_;             // kept between calls, to allocate only once
    std::vector<std::size_t> polled_hosts_;  // the hosts at the end of polled_
};

}  // namespace client
