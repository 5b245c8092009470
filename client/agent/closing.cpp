// How connections end: each with a last `status`. When the front ends before it, the agent goes on until it is stored.
#include "agent/agent.h"

#include <algorithm>
#include <utility>

void agent::close(std::size_t host) {
    host_state& state = hosts_[host];
    state.queue.clear();
    if (state.link.needs_password()) {
        password(host, "", false);  // nobody can type it any more
    }
    if (state.closing) {
        return state.held ? front_.send(to_front::closed, host, 0, true) : void();
    }
    if (!state.link.is_open() && !state.link.is_connecting()) {
        return on_closed(host);
    }
    state.closing = true;
    if (state.link.is_open() && state.current) {
        hold(state);
        return front_.send(to_front::closed, host, 0, true);
    }
    // While connecting, the command must not be sent any more, but the scheduler may have accepted the connection.
    begin(host, {});
}

void agent::hold(host_state& state) {
    if (!state.held || !state.held->is_open()) {
        state.held = hold_connection(state.key, state.link.connected_at());
    }
}

void agent::on_closed(std::size_t host) {
    host_state& state = hosts_[host];
    state.link.drop();
    active_.erase(host);
    state.current.reset();
    state.closing = false;
    if (std::optional<state_file> held = std::exchange(state.held, std::nullopt)) {
        held->remove();  // a held connection was reported already
    } else {
        front_.send(to_front::closed, host, mailbox_.waiting(state.key), false);
    }
    schedule(host);
}

void agent::finish() {
    is_finishing_ = true;
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        close(host);
    }
    // Before the wait for hosts that do not answer, so that other processes can show the messages of the rest now.
    mailbox_.leave();
    front_.send(to_front::left);
    front_.flush();
    const auto goes_on = [this] {
        return std::any_of(hosts_.begin(), hosts_.end(), [](const host_state& state) { return state.closing; });
    };
    while (goes_on()) {
        for (std::size_t host = 0; host < hosts_.size(); ++host) {
            host_state& state = hosts_[host];
            if (state.closing && state.link.is_open()) {
                hold(state);
                // An older connection to this scheduler, held by another process, gets the same messages.
                if (!state.held->is_open() && is_held(state.key, state.link.connecting_at())) {
                    on_closed(host);
                }
            }
        }
        if (goes_on()) {  // no event comes after the last connection was dropped
            step({});
        }
        mailbox_.leave();
    }
}
