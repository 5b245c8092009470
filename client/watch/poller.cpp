#include "watch/poller.h"

#include "options/options.h"
#include "protocol/limits.h"
#include "protocol/secret.h"
#include "term/each_line.h"
#include "watch/details.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr std::chrono::seconds details_interval{15};  // connections, modules and jobs seldom change

// Without a connection or an answer, trying again may help; any other reason stays.
bool is_connection_lost(outcome how) {
    return how == outcome::closed || how == outcome::unsent;
}

agent_options options_of(const settings& chosen, mail_kind kind) {
    agent_options how;
    how.connect = chosen.connect;
    how.parallel = chosen.parallel;
    how.stored = stored_messages::taken;
    how.kind = kind;
    return how;
}

}  // namespace

poller::poller(const settings& chosen, mail_kind kind, poll_output& output)
    : interval_(chosen.interval),
      several_(chosen.several),
      is_follower_(kind == mail_kind::followers),
      asks_password_(!several_ && !is_follower_ && chosen.connect.password_file.empty() &&
                     isatty(STDIN_FILENO) == 1 && counters_of(key_of(chosen.hosts[0])).login),
      output_(output),
      states_(chosen.hosts.size()),
      agent_(chosen.hosts, options_of(chosen, kind), listener()) {}

agent_listener poller::listener() {
    agent_listener events;
    events.output = [this](std::size_t host, std::uint32_t, std::string_view text) {
        states_[host].answer += text;
    };
    events.status = [this](std::size_t host, status_answer& answer) { received(host, answer); };
    events.ended = [this](std::size_t host, std::uint32_t request, const command_result& end) {
        ended(host, request, end);
    };
    // The connection stays, and the answer may still come.
    events.late = [this](std::size_t host, std::uint32_t) {
        failed(host, outcome::no_answer);
        output_.polled(host);
    };
    events.closed = [](std::size_t, std::size_t, bool) {};
    events.password_needed = [this](std::size_t host) {
        agent_.password(host, output_.password(hosts()[host]));
    };
    return events;
}

// Whoever gives no password must not take messages by a connection that is then refused.
bool poller::password_missing() {
    if (!std::exchange(asks_password_, false)) {
        return false;
    }
    const std::optional<std::string> text = output_.password(hosts()[0]);
    agent_.password(0, text);
    return !text;
}

void poller::ask_status(std::size_t host) {
    host_state& state = states_[host];
    if (password_missing()) {
        return failed(host, outcome::login_refused);
    }
    state.asked_at = clock::now();
    state.asks_detail = false;
    state.request = agent_.ask(host, {"status"});
}

void poller::ask_detail(std::size_t host, std::size_t number) {
    host_state& state = states_[host];
    state.asks_detail = true;
    state.detail = number;
    state.answer.clear();
    state.request = agent_.ask(host, details()[number].words);
}

// Returns when the next host is due.
poller::clock::time_point poller::ask_due() {
    const clock::time_point now = clock::now();
    clock::time_point next = clock::time_point::max();
    for (std::size_t host = 0; host < states_.size(); ++host) {
        host_state& state = states_[host];
        if (state.due <= now) {
            state.due = now + interval_;
            if (state.request == 0) {
                ask_status(host);
            } else {
                output_.polled(host);
            }
        }
        next = std::min(next, state.due);
    }
    return next;
}

void poller::received(std::size_t host, const status_answer& answer) {
    host_state& state = states_[host];
    if (answer.complete && state.now != health::up) {
        const bool again = std::exchange(state.now, health::up) == health::outage;
        state.refused = false;
        state.details_due = {};  // they may have changed during an outage
        output_.connected(host, again);
    }
    const status_update update = update_of(state.conditions, answer);
    state.conditions = update.conditions;
    output_.received(host, answer, update);
}

void poller::ended(std::size_t host, std::uint32_t request, const command_result& end) {
    host_state& state = states_[host];
    if (finishing_) {
        return;
    }
    if (request == 0) {  // an idle connection; the next status makes a new one
        failed(host, end);
        return output_.polled(host);
    }
    state.request = 0;
    if (state.asks_detail) {
        return detail_ended(host, end);
    }
    if (end.how != outcome::over) {
        failed(host, end);
    } else if (is_follower_ && state.details_due <= clock::now()) {
        state.details_due = clock::now() + details_interval;
        return ask_detail(host, 0);
    }
    end_round(host);
    if (is_refusal(end.how)) {
        state.due = clock::now() + std::max(login_retry, interval_);
    }
}

// A detail that failed keeps its old value, and the next one is asked.
void poller::detail_ended(std::size_t host, const command_result& end) {
    host_state& state = states_[host];
    if (is_connection_lost(end.how)) {
        failed(host, end);
        return end_round(host);
    }
    if (end.how == outcome::over) {
        output_.received_detail(host, state.detail, state.answer);
    }
    if (state.detail + 1 < details().size()) {
        ask_detail(host, state.detail + 1);
    } else {
        end_round(host);
    }
}

void poller::failed(std::size_t host, const command_result& why) {
    host_state& state = states_[host];
    const bool refuses = is_refusal(why.how);
    const bool is_first = state.now == health::unknown;
    const bool is_news = state.now != health::outage || (refuses && !state.refused);
    state.now = health::outage;
    state.refused = state.refused || refuses;
    if (!several_ && (refuses || (is_first && !is_follower_))) {
        given_up_ = why;
    }
    output_.failed(host, why, is_news);
}

// From the time of the request, so that a slow answer does not make the interval longer.
void poller::end_round(std::size_t host) {
    states_[host].due = states_[host].asked_at + interval_;
    output_.polled(host);
}

void poller::step(std::span<pollfd> others, clock::time_point until) {
    const clock::time_point next = ask_due();
    if (!given_up_) {
        agent_.step(others, std::min(next, until));
    }
}

void poller::shown(std::uint64_t id) {
    if (id != 0) {
        agent_.shown({id});
    }
}

void poller::finish(signal_watch& signals) {
    finishing_ = true;
    pollfd signal[] = {{signals.fd(), POLLIN, 0}};
    agent_.finish(signal);
}

int poller::run(signal_watch& signals, const line_writer& output) {
    bool is_stopped = false;
    while (!is_stopped && output.is_open() && !given_up_) {
        pollfd signal[] = {{signals.fd(), POLLIN, 0}};
        step(signal, clock::time_point::max());
        is_stopped = signal[0].revents != 0 && signals.take();
    }
    finish(signals);
    return given_up_ ? report_given_up() : output.exit_code();
}

int poller::report_given_up() const {
    std::fprintf(stderr, "schedctl: %s: %s\n", hosts()[0].label.c_str(), describe(*given_up_).c_str());
    return exit_code_of(*given_up_);
}

bool is_refusal(outcome how) {
    return !is_connection_lost(how) && how != outcome::no_answer && how != outcome::over;
}

std::string prefix_of(const settings& chosen, std::size_t host) {
    return chosen.several ? chosen.hosts[host].label + ": " : "";
}

std::string notices_of(const settings& chosen, std::size_t host, const status_answer& answer) {
    std::string text;
    const std::string start = "schedctl: " + prefix_of(chosen, host);
    each_line(answer.notice, [&](const std::string& line) { text += start + line + "\n"; });
    if (!answer.unstored.empty()) {
        text += start + "messages could not be stored: " + answer.unstored + "\n";
    }
    return text;
}

std::optional<std::string> ask_password_for(const host_name& host) {
    const signals_through through;
    std::string password;
    std::string problem;
    if (ask_password("Password for " + host.name + ": ", false, password, problem)) {
        return password;
    }
    std::fprintf(stderr, "schedctl: %s\n", problem.c_str());
    return std::nullopt;
}

}  // namespace client
