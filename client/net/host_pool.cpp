#include "net/host_pool.h"

#include "protocol/limits.h"

#include <algorithm>
#include <sys/resource.h>
#include <utility>

namespace client {

namespace {

constexpr rlim_t other_descriptors = 64;  // for standard streams, files and the resolver's threads

// How many of the wanted connections the limit for descriptors allows, once it is raised. Each host may need two more
// for its files.
std::size_t allowed_connections(std::size_t wanted) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return wanted;
    }
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);  // a refusal shows in the next call
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t free = limit.rlim_cur > other_descriptors ? limit.rlim_cur - other_descriptors : 1;
    return std::clamp<std::size_t>(wanted, 1, std::max<rlim_t>(free / 3, 1));
}

}  // namespace

host_pool::host_pool(std::vector<host_name> hosts, connect_options how, std::size_t parallel, listener events)
    : how_(std::move(how)),
      parallel_(allowed_connections(parallel)),
      listener_(std::move(events)),
      passwords_(how_.password_file) {
    const auto silence = hosts.size() > 1 ? default_module_silence : std::chrono::seconds(0);
    for (host_name& host : hosts) {
        links_.push_back(std::make_unique<host_link>(std::move(host), how_, passwords_, silence));
    }
}

std::size_t host_pool::add(host_name host) {
    links_.push_back(std::make_unique<host_link>(std::move(host), how_, passwords_, default_module_silence));
    return links_.size() - 1;
}

void host_pool::ask(std::size_t host, std::vector<std::string> words) {
    queue_.push_back({host, std::move(words)});
}

void host_pool::request_final_status(std::size_t host) {
    std::erase_if(queue_, [host](const question& q) { return q.host == host; });
    final_.push_back(host);
}

void host_pool::drop(std::size_t host) {
    // A command that has not been started must not make a new connection.
    std::erase_if(queue_, [host](const question& q) { return q.host == host; });
    links_[host]->drop();
    open_.erase(host);
    counted_.erase(host);
}

void host_pool::password(std::size_t host, std::optional<std::string> text) {
    const bool is_given = text.has_value();
    if (is_given) {
        passwords_.set(std::move(*text));
    }
    if (links_[host]->needs_password()) {
        links_[host]->log_in(is_given ? "" : "there is no --password-file");
        open_.insert(host);
        update(host);  // without a password the command has ended
    }
}

std::size_t host_pool::busy() const {
    const auto running = std::count_if(open_.begin(), open_.end(),
                                       [this](std::size_t host) { return links_[host]->is_busy(); });
    return queue_.size() + final_.size() + static_cast<std::size_t>(running);
}

void host_pool::begin(question next) {
    host_link& link = *links_[next.host];
    link.ask(std::move(next.words));
    open_.insert(next.host);
    if (link.wants_addresses()) {
        names_.ask(next.host, link.host().name);
    }
    update(next.host);
}

// Starts queued commands. Returns true when there was one: its end may be what the caller waits for.
bool host_pool::start_queued() {
    bool started = false;
    while (!final_.empty()) {
        const std::size_t host = final_.front();
        final_.pop_front();
        started = true;
        if (links_[host]->is_open()) {
            begin({host, {}});
        } else if (links_[host]->is_connecting()) {
            links_[host]->end_when_connected();
        } else {
            drop(host);
            listener_.ended(host, {outcome::closed, ""});
        }
    }
    while (counted_.size() < parallel_ && !queue_.empty()) {
        question next = std::move(queue_.front());
        queue_.pop_front();
        counted_.insert(next.host);
        started = true;
        begin(std::move(next));
    }
    return started;
}

// Hands output and end of a command to the listener.
void host_pool::update(std::size_t host, const exchange::output& received) {
    if (!received.text.empty()) {
        listener_.output(host, received.text, received.of_status);
    }
    const std::optional<command_result> end = links_[host]->take_end();
    if (links_[host]->fd() < 0 && !links_[host]->is_busy()) {
        open_.erase(host);
    }
    if (end) {
        counted_.erase(host);
        listener_.ended(host, *end);
    } else if (links_[host]->needs_password()) {
        listener_.password_needed(host);
    }
}

void host_pool::step(std::span<pollfd> others, clock::time_point until) {
    poll_links(others, start_queued() ? clock::now() : until);
    std::copy_n(polled_.begin(), others.size(), others.begin());
    if (polled_[others.size()].revents != 0) {
        for (lookup_result& found : names_.results()) {
            const std::size_t host = found.host;
            links_[host]->on_resolved(std::move(found));
            update(host);
        }
    }
    for (std::size_t i = 0; i < polled_hosts_.size(); ++i) {
        host_link& link = *links_[polled_hosts_[i]];
        const pollfd& ready = polled_[others.size() + 1 + i];
        // A callback may have closed this link since the poll; its descriptor is then another one or none.
        if (ready.revents != 0 && link.fd() == ready.fd) {
            exchange::output received;
            link.on_ready(received);
            update(polled_hosts_[i], received);
        }
    }
    expire_late();
}

void host_pool::expire_late() {
    const clock::time_point now = clock::now();
    // A copy: the listener may begin and end commands.
    for (const std::size_t host : std::vector<std::size_t>(open_.begin(), open_.end())) {
        host_link& link = *links_[host];
        if (link.deadline() > now) {
            continue;
        }
        link.expire();
        if (link.is_late()) {
            counted_.erase(host);
            listener_.late(host);
        } else {
            update(host);
        }
    }
}

// Polls the caller's descriptors first, then the one of the look-ups, then those of the hosts in polled_hosts_.
void host_pool::poll_links(std::span<pollfd> others, clock::time_point until) {
    polled_.assign(others.begin(), others.end());
    polled_.push_back({names_.fd(), POLLIN, 0});
    polled_hosts_.clear();
    for (const std::size_t host : open_) {
        until = std::min(until, links_[host]->deadline());
        if (links_[host]->fd() >= 0) {
            polled_.push_back({links_[host]->fd(), links_[host]->events(), 0});
            polled_hosts_.push_back(host);
        }
    }
    int wait = -1;
    if (until != clock::time_point::max()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now()).count();
        wait = static_cast<int>(std::clamp<decltype(left)>(left, 0, 3600 * 1000));
    }
    if (poll(polled_.data(), polled_.size(), wait) < 0) {
        for (pollfd& p : polled_) {
            p.revents = 0;  // interrupted by a signal, or out of memory: the caller calls again
        }
    }
}

}  // namespace client
