#include "watch/poller.h"

#include "options/options.h"
#include "protocol/limits.h"
#include "protocol/login.h"
#include "term/output.h"
#include "term/text.h"

#include <algorithm>

constexpr std::chrono::seconds details_interval{15};  // connections, modules and jobs seldom change
constexpr std::chrono::seconds only_once = std::chrono::hours(24);

poller::poller(const settings& chosen)
    : chosen_(chosen),
      interval_(chosen.what == task::check || chosen.what == task::metrics ? only_once
                                                                           : std::chrono::seconds(chosen.interval)),
      agent_(chosen.hosts, asking(chosen), *this) {
    for (const host_name& host : chosen.hosts) {
        states_.push_back({inquiry(host)});
    }
}

// now: the same for all hosts that are due, so that they stay due together: an event for each costs more.
void poller::ask(std::size_t host, clock::time_point now) {
    host_state& state = states_[host];
    if (chosen_.what == task::watch && agent_.needs_password()) {
        if (const std::optional<std::string> problem = ask_password(host)) {
            state.due = now + std::max<clock::duration>(login_retry, interval_);
            return fail(host, {outcome::login_refused, *problem});
        }
    }
    // In an outage only the status: without an answer it brings what waits in the mailbox.
    const bool with_details = (chosen_.what == task::follow || chosen_.what == task::metrics) &&
                              state.round.known.failure == 0 && state.details_due <= now;
    if (with_details) {
        state.details_due = now + details_interval;
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

void poller::status(std::size_t host, const status_answer& answer) {
    host_state& state = states_[host];
    const bool was_up = state.round.known.up;
    const bool has_failed = state.round.known.failure != 0;
    std::vector<event> news = state.round.status(answer);
    if (state.round.known.up && !was_up) {
        state.refused = false;
        if (has_failed || chosen_.what == task::follow) {
            news.insert(news.begin(), connected_event());
        }
    }
    received(host, answer, news);
}

void poller::ended(std::size_t host, std::uint32_t request, const command_result& end) {
    host_state& state = states_[host];
    if (end.how == outcome::no_answer) {
        return late(host);
    }
    if (finishing_ || state.closed) {
        return;
    }
    if (request != 0) {  // else an idle connection was closed; the next round makes a new one
        state.request = 0;
        if (state.round.ended(end)) {
            state.request = agent_.ask(host, state.round.words());
            return;
        }
        if (is_refusal(end.how)) {
            state.due = clock::now() + std::max(login_retry, interval_);
        }
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
    if (!chosen_.several && (refuses || (is_first && chosen_.what != task::follow))) {
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

void poller::close(std::size_t host) {
    states_[host].due = clock::time_point::max();
    states_[host].closed = true;
    agent_.close(host);
}

void poller::finish(std::span<pollfd> others) {
    finishing_ = true;
    agent_.finish(others);
}

std::string poller::notices_of(std::size_t host, const status_answer& answer) const {
    std::string text;
    const std::string start = "schedctl: " + chosen_.prefix_of(host);
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
    complain(chosen_.hosts[0].label + ": " + describe(*given_up_));
    return exit_code_of(*given_up_);
}

bool is_refusal(outcome how) {
    return how != outcome::closed && how != outcome::unsent && how != outcome::no_answer && how != outcome::over;
}

agent_options asking(const settings& chosen) {
    agent_options how{.connect = chosen.connect, .parallel = chosen.parallel, .stored = stored_messages::taken};
    how.kind = chosen.what == task::follow ? mail_kind::followers : mail_kind::operators;
    if (chosen.what == task::check || chosen.what == task::metrics) {
        how.must_store = true;
        how.stored = stored_messages::looked_at;
        how.connect.user.clear();  // no greeting: it runs a module, and might have to wait for another one
    }
    return how;
}

void poller::password_needed(std::size_t host) {
    if (chosen_.what == task::watch) {
        ask_password(host);
    } else {
        agent_.refuse_password(host);
    }
}
