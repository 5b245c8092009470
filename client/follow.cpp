#include "follow.h"

#include "answer.h"
#include "followed_host.h"
#include "many_hosts.h"
#include "options.h"
#include "signals.h"
#include "visit.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

using clock = many_hosts::clock;

constexpr double usual_silence = 10;                  // seconds, when the operator names none
constexpr std::chrono::seconds details_interval{15};  // connections, modules and jobs seldom change
constexpr std::chrono::seconds refused_retry{60};     // a wrong password is not tried every two seconds
// A host that does not answer must not keep the program from ending.
constexpr std::chrono::seconds farewell_limit{3};

class follower {
public:
    explicit follower(const settings& chosen);
    int run();

private:
    enum class question { none, status, detail };

    struct host_state {
        host_state(const host_name& of, bool level_prefix, followed_host::writer write)
            : host(endpoint_of(of), level_prefix, std::move(write)) {}

        followed_host host;
        question asked = question::none;
        std::string answer;  // as far as it has come
        std::size_t next_detail = 0;
        clock::time_point asked_at{};  // when the status was asked for
        clock::time_point due{};       // when to ask for the status; during a silence, when to save again
        clock::time_point details_due{};
        bool refused = false;
        bool parting = false;  // the last status was asked for
        bool gone = false;     // nothing more comes
    };

    bool write(const std::string& line);
    void ask(std::size_t number, question what);
    clock::time_point ask_due();
    void ended(std::size_t number, const answer_end& end);
    void answered(std::size_t number, const std::string& answer);
    void took_detail(std::size_t number, const answer_end& end, const std::string& answer);
    void failed(std::size_t number, const answer_end& end, const std::string& answer);
    void refused(std::size_t number, const answer_end& end);
    void rest(host_state& state);
    void save(host_state& state) const;
    void part(std::size_t number);
    void leave();

    const settings& chosen_;
    const std::vector<host_name> names_;
    const std::chrono::seconds interval_;
    signal_watch signals_;
    std::vector<std::unique_ptr<host_state>> states_;
    bool ending_ = false;
    bool reader_gone_ = false;
    bool leaving_ = false;
    int exit_code_ = 0;
    // Last, because its callbacks use the members above.
    many_hosts hosts_;
};

std::vector<host_name> names_of(const settings& chosen) {
    const endpoint& one = chosen.where;
    return chosen.hosts.empty() ? std::vector<host_name>{{one.host, one.host, one.port}} : chosen.hosts;
}

follower::follower(const settings& chosen)
    : chosen_(chosen),
      names_(names_of(chosen)),
      interval_(chosen.interval),
      hosts_(names_, chosen, names_.size(),
             {[this](std::size_t number, std::string_view text) { states_[number]->answer += text; },
              [this](std::size_t number, const answer_end& end) { ended(number, end); }}) {
    signals_.watch_reader_of(STDOUT_FILENO);
    // A closed output must be an error of write: its messages are then stored for the next reader.
    std::signal(SIGPIPE, SIG_IGN);
    for (const host_name& name : names_) {
        states_.push_back(std::make_unique<host_state>(
            name, chosen.level_prefix, [this](const std::string& line) { return write(line); }));
    }
}

// Writes one line with one write, so that the reader gets it at once.
bool follower::write(const std::string& line) {
    if (reader_gone_ || write_until_signal(line, signals_)) {
        return !reader_gone_;
    }
    reader_gone_ = true;
    if (errno != EPIPE &&
        errno != EINTR) {  // a full disk is a fault; a signal and a reader that goes are not
        std::fprintf(stderr, "schedctl: cannot write: %s\n", std::generic_category().message(errno).c_str());
        exit_code_ = exit_usage;
    }
    return false;
}

void follower::ask(std::size_t number, question what) {
    host_state& state = *states_[number];
    state.asked = what;
    state.answer.clear();
    // Nothing is due while a command runs; its end sets the next time.
    state.due = clock::time_point::max();
    if (what == question::status) {
        state.asked_at = clock::now();
        hosts_.ask(number, {"status"});
    } else {
        hosts_.ask(number, details()[state.next_detail].words);
    }
}

// Returns when the next host is due.
clock::time_point follower::ask_due() {
    clock::time_point next = clock::time_point::max();
    for (std::size_t number = 0; number < states_.size(); ++number) {
        host_state& state = *states_[number];
        if (state.due <= clock::now() && state.asked == question::none) {
            ask(number, question::status);
        } else if (state.due <= clock::now()) {
            // A silent host: its state file must not become too old for its readers.
            state.due = clock::now() + interval_;
            save(state);
        }
        next = std::min(next, state.due);
    }
    return next;
}

void follower::ended(std::size_t number, const answer_end& end) {
    host_state& state = *states_[number];
    if (end.how == ending::silent) {  // the answer may still come
        state.host.not_answered(end);
        state.due = clock::now() + interval_;
        return save(state);
    }
    const question asked = std::exchange(state.asked, question::none);
    const std::string answer = std::exchange(state.answer, {});
    if (leaving_) {
        if (asked == question::status) {
            state.host.take_messages(answer);
        }
        if (state.parting) {
            state.gone = end.how != ending::over;  // then the scheduler closes the connection
        } else {
            part(number);
        }
    } else if (asked == question::status && end.how == ending::over) {
        answered(number, answer);
    } else if (asked == question::detail && end.how != ending::closed && end.how != ending::unsent) {
        took_detail(number, end, answer);
    } else {
        failed(number, end, asked == question::status ? answer : "");
    }
}

void follower::answered(std::size_t number, const std::string& answer) {
    host_state& state = *states_[number];
    const clock::time_point now = clock::now();
    // The details may have changed during an outage.
    if (!state.host.known().up) {
        state.details_due = now;
    }
    state.refused = false;
    state.host.answered(answer, std::chrono::duration<double>(now - state.asked_at).count());
    if (now < state.details_due) {
        return rest(state);
    }
    state.details_due = now + details_interval;
    state.next_detail = 0;
    ask(number, question::detail);
}

void follower::took_detail(std::size_t number, const answer_end& end, const std::string& answer) {
    host_state& state = *states_[number];
    // A detail that failed keeps its old value, and the next one is asked.
    if (end.how == ending::over) {
        details()[state.next_detail].take(answer, state.host.known());
    }
    if (++state.next_detail < details().size()) {
        ask(number, question::detail);
    } else {
        rest(state);
    }
}

// answer: of the status, as far as it came. Its messages have been handed over.
void follower::failed(std::size_t number, const answer_end& end, const std::string& answer) {
    host_state& state = *states_[number];
    state.host.not_answered(end);
    state.host.take_messages(answer);
    rest(state);
    if (end.how != ending::closed && end.how != ending::unsent) {
        refused(number, end);
    }
}

void follower::refused(std::size_t number, const answer_end& end) {
    host_state& state = *states_[number];
    const bool is_one = chosen_.hosts.empty();
    // Told once for each outage, though the login is tried again.
    if (!std::exchange(state.refused, true)) {
        const std::string label = is_one ? "" : names_[number].label + ": ";
        std::fprintf(stderr, "schedctl: %s%s\n", label.c_str(), describe(end).c_str());
    }
    state.due = clock::now() + std::max(refused_retry, interval_);
    // With several hosts the others are still followed.
    if (is_one) {
        exit_code_ = exit_code_of(end);
        ending_ = true;
    }
}

void follower::rest(host_state& state) {
    // From the time of the request, so that a slow answer does not make the interval longer.
    state.due = state.asked_at + interval_;
    save(state);
}

// Writes the state file. Readers use it until the next one must have been written: after an interval, a time-out and
// some delay.
void follower::save(host_state& state) const {
    const double silence = chosen_.where.timeout != 0 ? chosen_.where.timeout : usual_silence;
    state.host.save(2.0 * chosen_.interval + silence + 2.0);
}

// Fetches the messages that wait for this connection before closing it.
void follower::part(std::size_t number) {
    host_state& state = *states_[number];
    const farewell result = hosts_.take_leave(number);
    state.gone = result == farewell::impossible;
    state.parting = result == farewell::asked;
    if (state.parting) {
        state.asked = question::status;  // also when a question that has not been sent was given up
    }
}

void follower::leave() {
    leaving_ = true;
    for (std::size_t number = 0; number < states_.size(); ++number) {
        part(number);
    }
    const clock::time_point limit = clock::now() + farewell_limit;
    const auto all_gone = [this] {
        return std::all_of(states_.begin(), states_.end(), [](const auto& state) { return state->gone; });
    };
    while (!all_gone() && clock::now() < limit) {
        hosts_.step({}, limit);
    }
    for (const auto& state : states_) {
        if (state->asked == question::status) {
            state->host.take_messages(state->answer);  // as far as it has come
        }
        state->host.remove_state();
    }
}

int follower::run() {
    while (!ending_ && !reader_gone_) {
        pollfd signal[] = {{signals_.fd(), POLLIN, 0}};
        hosts_.step(signal, ask_due());
        ending_ = ending_ || (signal[0].revents != 0 && signals_.take());
    }
    leave();
    return exit_code_;
}

}  // namespace

int run_follow(const settings& chosen) {
    return follower(chosen).run();
}

}  // namespace client
