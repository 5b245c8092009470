#include "watch/poller.h"

#include "options/options.h"
#include "protocol/limits.h"
#include "protocol/login.h"
#include "term/output.h"
#include "term/signals.h"
#include "term/text.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr std::chrono::seconds details_interval{15};  // connections, modules and jobs seldom change

}  // namespace

poller::poller(const settings& chosen, const agent_options& how, bool with_details)
    : interval_(chosen.interval),
      several_(chosen.several),
      is_follower_(how.kind == mail_kind::followers),
      with_details_(with_details),
      asks_password_(!several_ && !is_follower_ && !how.must_store && chosen.connect.password_file.empty() &&
                     isatty(STDIN_FILENO) == 1 && counters_of(key_of(chosen.hosts[0])).login),
      agent_(chosen.hosts, how, listener()) {
    for (const host_name& host : hosts()) {
        states_.push_back({inquiry(host)});
    }
}

agent_listener poller::listener() {
    agent_listener events;
    events.output = [this](std::size_t host, std::uint32_t, std::string_view text) {
        states_[host].round.output(text);
    };
    events.status = [this](std::size_t host, status_answer& answer) { answered(host, answer); };
    events.ended = [this](std::size_t host, std::uint32_t request, const command_result& end) {
        ended(host, request, end);
    };
    // The connection stays, and the answer may still come.
    events.late = [this](std::size_t host, std::uint32_t) { late(host); };
    events.closed = [](std::size_t, std::size_t, bool) {};
    events.password_needed = [this](std::size_t host) { agent_.password(host, password(hosts()[host])); };
    return events;
}

// Without a password nothing is asked: the connection would take messages and then be refused.
bool poller::password_missing() {
    if (!std::exchange(asks_password_, false)) {
        return false;
    }
    const std::optional<std::string> text = password(hosts()[0]);
    agent_.password(0, text);
    return !text;
}

// now: the same for all hosts that are due, so that they stay due together: an event for each costs more.
void poller::ask(std::size_t host, clock::time_point now) {
    host_state& state = states_[host];
    if (password_missing()) {
        return fail(host, outcome::login_refused);
    }
    state.asked_at = now;
    // In an outage only the status: without an answer it brings what waits in the mailbox.
    const bool has_failed = state.round.known.failure != 0;
    const bool with_details = with_details_ && !has_failed && state.details_due <= state.asked_at;
    if (with_details) {
        state.details_due = state.asked_at + details_interval;
    }
    state.round.begin(with_details);
    state.request = agent_.ask(host, state.round.words());
}

// Returns when the next host is due.
poller::clock::time_point poller::ask_due() {
    const clock::time_point now = clock::now();
    if (now < next_due_) {
        return next_due_;
    }
    next_due_ = clock::time_point::max();
    for (std::size_t host = 0; host < states_.size(); ++host) {
        host_state& state = states_[host];
        if (state.due <= now) {
            state.due = now + interval_;
            if (state.request == 0) {
                ask(host, now);
            } else {
                polled(host);
            }
        }
        next_due_ = std::min(next_due_, state.due);
    }
    return next_due_;
}

void poller::answered(std::size_t host, const status_answer& answer) {
    host_state& state = states_[host];
    const snapshot& known = state.round.known;
    const bool was_up = known.up;
    const bool has_failed = known.failure != 0;
    const status_update update = state.round.status(answer);
    if (known.up && !was_up) {
        state.refused = false;
        connected(host, has_failed);
    }
    received(host, answer, update);
}

void poller::ended(std::size_t host, std::uint32_t request, const command_result& end) {
    host_state& state = states_[host];
    if (finishing_ || state.closed) {
        return;
    }
    if (request != 0) {  // else an idle connection was closed; the next round makes a new one
        state.request = 0;
        if (state.round.ended(end)) {
            state.request = agent_.ask(host, state.round.words());
            return;
        }
        // From the time of the request, so that a slow answer does not make the interval longer.
        state.due = is_refusal(end.how) ? clock::now() + std::max(login_retry, interval_)
                                        : state.asked_at + interval_;
        next_due_ = std::min(next_due_, state.due);
    }
    if (end.how != outcome::over) {
        fail(host, end);
    }
    polled(host);
}

void poller::late(std::size_t host) {
    if (!states_[host].closed) {
        fail(host, outcome::no_answer);
        polled(host);
    }
}

void poller::fail(std::size_t host, const command_result& why) {
    host_state& state = states_[host];
    const bool refuses = is_refusal(why.how);
    const bool was_up = state.round.known.up;
    const bool is_first = !was_up && state.round.known.failure == 0;
    const bool is_news = was_up || is_first || (refuses && !state.refused);
    state.refused = state.refused || refuses;
    state.details_due = {};  // they may change during an outage
    state.round.failed(why);
    if (!several_ && (refuses || (is_first && !is_follower_))) {
        given_up_ = why;
    }
    failed(host, why, is_news);
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

void poller::close(std::size_t host) {
    states_[host].due = clock::time_point::max();
    states_[host].closed = true;
    agent_.close(host);
}

void poller::finish(std::span<pollfd> others) {
    finishing_ = true;
    agent_.finish(others);
}

std::string poller::prefix_of(std::size_t host) const {
    return several_ ? hosts()[host].label + ": " : "";
}

std::string poller::notices_of(std::size_t host, const status_answer& answer) const {
    std::string text;
    const std::string start = "schedctl: " + prefix_of(host);
    each_line(answer.notice, [&](const std::string& line) { text += start + line + "\n"; });
    if (!answer.unstored.empty()) {
        text += start + "messages could not be stored: " + answer.unstored + "\n";
    }
    return text;
}

int poller::report_given_up(int otherwise) const {
    if (!given_up_) {
        return otherwise;
    }
    complain(hosts()[0].label + ": " + describe(*given_up_));
    return exit_code_of(*given_up_);
}

bool is_refusal(outcome how) {
    return how != outcome::closed && how != outcome::unsent && how != outcome::no_answer &&
           how != outcome::over;
}

agent_options showing(const settings& chosen, mail_kind kind) {
    return {.connect = chosen.connect,
            .parallel = chosen.parallel,
            .stored = stored_messages::taken,
            .kind = kind};
}

std::optional<std::string> ask_password_for(const host_name& host) {
    const signals_through through;
    std::string password;
    std::string problem;
    if (ask_password("Password for " + host.name + ": ", false, password, problem)) {
        return password;
    }
    complain(problem);
    return std::nullopt;
}

}  // namespace client
