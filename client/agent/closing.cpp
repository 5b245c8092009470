// How connections end: each with a last `status`. When the front ends before it, the agent goes on until it is stored.
#include "agent/agent.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace client {

void detach() {
    setsid();
    // The three standard descriptors are open, so this is another one.
    const descriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        dup2(nothing.get(), fd);
    }
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGQUIT}) {
        std::signal(signo, SIG_IGN);
    }
}

void agent::close(std::size_t host) {
    host_state& state = hosts_[host];
    state.queue.erase(state.queue.begin() + (state.asking ? 1 : 0), state.queue.end());
    if (state.link.needs_password()) {
        password(host, "", false);  // nobody can type it any more
    }
    if (state.closing) {
        return state.held ? listener_.closed(host, 0, true) : void();
    }
    if (!state.link.is_open() && !state.link.is_connecting()) {
        return on_closed(host);
    }
    state.closing = true;
    if (state.link.is_open() && state.asking) {
        hold(state);
        return listener_.closed(host, 0, true);
    }
    // While connecting, the command must not be sent any more, but the scheduler may have accepted the connection.
    ask_final(host);
}

void agent::ask_final(std::size_t host) {
    hosts_[host].final_asked = true;
    begin(host, {});
}

void agent::hold(host_state& state) {
    if (!state.held || !state.held->is_held()) {
        state.held.emplace(state.key, state.link.connected_at());
    }
}

void agent::on_closed(std::size_t host) {
    host_state& state = hosts_[host];
    state.link.drop();
    active_.erase(host);
    const bool was_held = state.held.has_value();
    state.held.reset();
    if (state.asking) {
        state.queue.pop_front();
    }
    state.asking = state.given_up = state.closing = state.final_asked = false;
    // A held connection was reported already.
    if (!was_held) {
        listener_.closed(host, mailbox_.waiting(state.key), false);
    }
    schedule(host);
}

void agent::finish(const std::function<void()>& on_left) {
    is_finishing_ = true;
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        close(host);
    }
    // Before the wait for hosts that do not answer, so that other processes can show the messages of the rest now.
    mailbox_.leave();
    if (on_left != nullptr) {
        on_left();
    }
    const auto goes_on = [this] {
        return std::any_of(hosts_.begin(), hosts_.end(),
                           [](const host_state& state) { return state.closing; });
    };
    while (goes_on()) {
        for (std::size_t host = 0; host < hosts_.size(); ++host) {
            host_state& state = hosts_[host];
            if (!state.closing || !state.link.is_open()) {
                continue;
            }
            hold(state);
            // An older connection to this scheduler, held by another process, gets the same messages.
            if (!state.held->is_held() &&
                held_connection::older_exists(state.key, state.link.connecting_at())) {
                on_closed(host);
            }
        }
        if (goes_on()) {  // no event comes after the last connection was dropped
            step({}, clock::time_point::max());
        }
        mailbox_.leave();
    }
}

}  // namespace client
