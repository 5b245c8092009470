#include "many_hosts.h"

#include "options.h"

#include <algorithm>
#include <sys/resource.h>
#include <utility>

namespace client {

namespace {

constexpr std::size_t other_descriptors = 64;  // for standard streams, files and the resolver's threads
constexpr std::chrono::seconds least_absence{1};

// How many of the wanted connections the limit for descriptors allows, once it is raised. The output of each host may
// need one more for its file.
std::size_t allowed_connections(std::size_t wanted, std::size_t hosts) {
    const rlim_t needed = wanted + hosts + other_descriptors;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= needed) {
        return wanted;
    }
    limit.rlim_cur = std::min(needed, limit.rlim_max);
    if (setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur == needed) {
        return wanted;
    }
    // The limit stays too low. Half of it is for connections, half for the files with output that waits.
    getrlimit(RLIMIT_NOFILE, &limit);
    const std::size_t half = limit.rlim_cur / 2;
    return half > other_descriptors ? std::min(wanted, half - other_descriptors) : 1;
}

}  // namespace

many_hosts::many_hosts(const std::vector<host_name>& hosts, const settings& chosen, std::size_t parallel,
                       listener told)
    : password_(chosen.password_file),
      parallel_(allowed_connections(std::min(parallel, hosts.size()), hosts.size())),
      told_(std::move(told)),
      asking_(hosts.size()) {
    const bool can_log_in = !chosen.password_file.empty() || chosen.hosts.empty();
    for (const host_name& host : hosts) {
        links_.push_back(std::make_unique<host_link>(host, chosen, can_log_in ? &password_ : nullptr));
    }
}

void many_hosts::ask(std::size_t host, std::vector<std::string> words) {
    queue_.push_back({host, std::move(words)});
}

void many_hosts::close(std::size_t host) {
    links_[host]->close();
    if (asking_[host]) {
        asking_[host] = false;
        --active_;
    }
}

farewell many_hosts::take_leave(std::size_t host) {
    std::erase_if(queue_, [host](const question& q) { return q.host == host; });
    const farewell result = links_[host]->take_leave();
    if (result == farewell::impossible) {
        close(host);
    } else if (!asking_[host]) {
        asking_[host] = true;
        ++active_;
    }
    return result;
}

// Starts queued commands. Returns true when one of them has already ended.
bool many_hosts::start_queued() {
    // ended() may queue further commands, so the sum decides and not a count of ends.
    const std::size_t waiting = queue_.size() + active_;
    while (active_ < parallel_ && !queue_.empty()) {
        const question next = std::move(queue_.front());
        queue_.pop_front();
        ++active_;
        asking_[next.host] = true;
        host_link& link = *links_[next.host];
        link.ask(next.words);
        if (link.wants_addresses()) {
            names_.ask(next.host, link.name());
        }
        collect(next.host, "");
    }
    return queue_.size() + active_ < waiting;
}

// Passes the output of a host, and the end of its command, to the listener.
void many_hosts::collect(std::size_t host, std::string_view output) {
    if (!output.empty()) {
        told_.output(host, output);
    }
    const std::optional<answer_end> end = links_[host]->take_end();
    if (!end) {
        return;
    }
    if (asking_[host]) {
        --active_;
    }
    asking_[host] = false;
    told_.ended(host, *end);
}

many_hosts::clock::time_point many_hosts::next_deadline() const {
    clock::time_point first = clock::time_point::max();
    for (const auto& link : links_) {
        first = std::min(first, link->deadline());
    }
    return first;
}

// While the reader of our own output keeps us waiting, or our process is stopped, no host is late.
void many_hosts::forgive_absence() {
    const clock::time_point now = clock::now();
    const clock::duration absence = now - std::exchange(listened_, now);
    if (absence < least_absence) {
        return;
    }
    for (const auto& link : links_) {
        link->extend_deadline(absence);
    }
}

void many_hosts::step(std::span<pollfd> others, clock::time_point until) {
    forgive_absence();
    // A command that has ended at once may be what the caller waits for, so poll must not wait.
    if (start_queued()) {
        until = clock::now();
    }
    const clock::time_point end = poll_links(others, until);
    std::copy_n(polled_.begin(), others.size(), others.begin());
    if (clock::now() - end >= least_absence) {
        forgive_absence();  // the process was stopped in poll
    }
    listened_ = clock::now();
    if (polled_[others.size()].revents != 0) {
        for (lookup_result& found : names_.take()) {
            const std::size_t host = found.host;
            links_[host]->take(std::move(found));
            collect(host, "");
        }
    }
    std::string output;
    for (std::size_t i = 0; i < polled_hosts_.size(); ++i) {
        host_link& link = *links_[polled_hosts_[i]];
        const pollfd& ready = polled_[others.size() + 1 + i];
        // A callback may have closed this link since the poll; its descriptor is then another one or none.
        if (ready.revents != 0 && link.fd() == ready.fd) {
            output.clear();
            link.ready(output);
            collect(polled_hosts_[i], output);
        }
    }
    for (std::size_t host = 0; host < links_.size(); ++host) {
        if (links_[host]->deadline() <= listened_) {
            links_[host]->expire();
            collect(host, "");
        }
    }
}

// Polls the caller's descriptors first, then the one of the look-ups, then those of the hosts in polled_hosts_. Returns
// the time until which it was to wait at most.
many_hosts::clock::time_point many_hosts::poll_links(std::span<const pollfd> others,
                                                     clock::time_point until) {
    polled_.assign(others.begin(), others.end());
    polled_.push_back({names_.fd(), POLLIN, 0});
    polled_hosts_.clear();
    for (std::size_t host = 0; host < links_.size(); ++host) {
        if (links_[host]->fd() >= 0) {
            polled_.push_back({links_[host]->fd(), links_[host]->events(), 0});
            polled_hosts_.push_back(host);
        }
    }
    const clock::time_point end = std::min(until, next_deadline());
    int wait = -1;
    if (end != clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count();
        wait = static_cast<int>(std::clamp<decltype(left)>(left, 0, 3600 * 1000));
    }
    if (poll(polled_.data(), polled_.size(), wait) < 0) {
        for (pollfd& p : polled_) {
            p.revents = 0;  // interrupted by a signal, or out of memory: the caller calls again
        }
    }
    return end;
}

}  // namespace client
