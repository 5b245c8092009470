#include "fleet_watch.h"

#include "changes.h"
#include "connection.h"
#include "fleet_view.h"
#include "many_hosts.h"
#include "options.h"
#include "screen.h"
#include "signals.h"
#include "spool.h"
#include "watch_view.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <deque>
#include <poll.h>
#include <utility>

namespace client {

namespace {

using clock = many_hosts::clock;

constexpr std::chrono::seconds login_retry(60);     // a wrong password is not tried every two seconds
constexpr std::chrono::seconds farewell_limit(1);   // a host that does not answer must not keep the view open
constexpr std::size_t longest_answer = 1 << 20;     // bytes; the largest status is about 140000
constexpr std::size_t most_fleet_messages = 10000;  // kept for the end of the view

class fleet_watch {
public:
    explicit fleet_watch(const settings& chosen);
    int run();

private:
    struct host_state {
        std::string answer;       // the part of the status that has come so far
        clock::time_point due{};  // time of the next status request
        bool asking = false;      // a request is running
        bool parting = false;     // the last status was asked for
    };

    void take(std::size_t host, std::string_view text);
    void ended(std::size_t host, const answer_end& end);
    void lose(std::size_t host, const std::string& reason);
    void part(std::size_t host);
    void leave();
    void take_report(std::size_t host, const status_report& report);
    void print(std::size_t host, const message& line);
    clock::time_point ask_due();
    clock::time_point draw_due() const;
    bool step(clock::time_point until);
    void suspend();

    const settings& chosen_;
    const bool drawing_;
    signal_watch signals_;
    screen screen_;
    std::vector<host_state> states_;
    std::vector<host_row> rows_;
    std::deque<std::pair<std::size_t, message>> messages_;  // number of the host and message, oldest first
    fleet_keys keys_;
    clock::time_point drawn_at_{};  // time of the last drawing
    bool news_ = false;             // answers have come since the last drawing
    bool key_pressed_ = false;      // keys have come since the last drawing
    bool leaving_ = false;
    many_hosts hosts_;
};

fleet_watch::fleet_watch(const settings& chosen)
    : chosen_(chosen),
      drawing_(can_draw()),
      signals_([this] { suspend(); }),
      states_(chosen.hosts.size()),
      hosts_(chosen.hosts, chosen, chosen.hosts.size(),
             {[this](std::size_t host, std::string_view text) { take(host, text); },
              [this](std::size_t host, const answer_end& end) { ended(host, end); }}) {
    for (const host_name& host : chosen.hosts) {
        rows_.push_back({host.label, false, "", "", {}, {}, 0});
    }
}

void fleet_watch::take(std::size_t host, std::string_view text) {
    states_[host].answer += text;
    if (states_[host].answer.size() > longest_answer) {
        hosts_.close(host);
        ended(host, {ending::closed, "its answer is too long"});
    }
}

void fleet_watch::ended(std::size_t host, const answer_end& end) {
    host_state& state = states_[host];
    host_row& row = rows_[host];
    if (end.how == ending::silent) {  // the answer, and the messages in it, may still come
        row.known = true;
        news_ = true;
        return lose(host, describe(end));
    }
    state.asking = false;
    status_report report = parse_status(std::exchange(state.answer, {}));
    if (leaving_) {
        report.conditions = row.conditions;  // only the messages matter now
        take_report(host, report);
        return state.parting ? hosts_.close(host) : part(host);
    }
    const bool is_back = end.how == ending::over && (!row.known || !row.trouble.empty());
    if (end.how == ending::over) {
        if (!drawing_ && !row.trouble.empty()) {
            print(host, {now_date(), "connected"});
        }
        row.trouble.clear();
    } else {
        // An incomplete answer may lack conditions, so the old ones are kept.
        report.conditions = row.conditions;
        lose(host, end.how == ending::closed ? end.reason : describe(end));
    }
    row.known = true;
    news_ = true;
    if (is_back) {
        // Adds the messages that `check` or `metrics` of this user received while there was no connection.
        const spool kept(endpoint_of(chosen_.hosts[host]));
        kept.hand_over_with(report, [&](const status_report& both) {
            take_report(host, both);
            return true;
        });
    } else {
        take_report(host, report);
    }
    const std::chrono::seconds interval(chosen_.interval);
    state.due =
        clock::now() + (end.how == ending::login_refused ? std::max(login_retry, interval) : interval);
}

void fleet_watch::lose(std::size_t host, const std::string& reason) {
    host_row& row = rows_[host];
    // Only the first failure is news; later ones keep its date.
    if (row.trouble.empty()) {
        row.since = now_date();
        if (!drawing_) {
            print(host, {row.since, "disconnected: " + reason});
        }
    }
    row.trouble = reason;
}

void fleet_watch::part(std::size_t host) {
    states_[host].parting = hosts_.take_leave(host) == farewell::asked;
}

// Fetches what was queued for these connections since their last answers. Nobody can once they are closed. Another
// signal ends the wait.
void fleet_watch::leave() {
    leaving_ = true;
    for (std::size_t host = 0; host < states_.size(); ++host) {
        part(host);
    }
    const clock::time_point limit = clock::now() + farewell_limit;
    bool is_stopped = false;
    while (hosts_.is_asking() && clock::now() < limit && !is_stopped) {
        pollfd signal[] = {{signals_.fd(), POLLIN, 0}};
        hosts_.step(signal, limit);
        is_stopped = signal[0].revents != 0 && signals_.take();
    }
}

void fleet_watch::take_report(std::size_t host, const status_report& report) {
    host_row& row = rows_[host];
    if (!drawing_) {
        // Without a terminal each change is printed at once, as in the watch of one host.
        for (const message& line : changes(row.conditions, report)) {
            print(host, line);
        }
    }
    row.conditions = report.conditions;
    row.lost += report.lost;
    for (const message& m : report.messages) {
        row.newest = m;
        messages_.emplace_back(host, m);
    }
    while (messages_.size() > most_fleet_messages) {
        messages_.pop_front();
    }
}

void fleet_watch::print(std::size_t host, const message& line) {
    print_text(rows_[host].label + ": " + line.date + " " + line.text);
}

// Asks every host that is due. Returns the time at which the next one is.
clock::time_point fleet_watch::ask_due() {
    const clock::time_point now = clock::now();
    clock::time_point next = clock::time_point::max();
    for (std::size_t host = 0; host < states_.size(); ++host) {
        host_state& state = states_[host];
        if (!state.asking && state.due <= now) {
            state.asking = true;
            hosts_.ask(host, {"status"});
        } else if (!state.asking) {
            next = std::min(next, state.due);
        }
    }
    return next;
}

// Draws at once after a key, at a limited rate while many answers come, and each second to update the ages.
clock::time_point fleet_watch::draw_due() const {
    if (!drawing_) {
        return clock::time_point::max();
    }
    if (key_pressed_) {
        return drawn_at_;
    }
    return drawn_at_ + (news_ ? std::chrono::milliseconds(200) : std::chrono::milliseconds(1000));
}

// Handles one event of the hosts, the keyboard or signals. Returns false when the operator ends the view.
bool fleet_watch::step(clock::time_point until) {
    pollfd ready[] = {{signals_.fd(), POLLIN, 0}, {screen_.keyboard(), POLLIN, 0}};
    hosts_.step(ready, until);
    if (ready[0].revents != 0 && signals_.take()) {
        return false;
    }
    // A new size needs a new drawing at once, like a key.
    key_pressed_ = key_pressed_ || signals_.resized();
    if (ready[1].revents == 0) {
        return true;
    }
    std::string typed;
    const bool more = screen_.take_keys(typed);
    keys_.take(typed);
    key_pressed_ = true;
    return more && !keys_.leaving;
}

// Ctrl-Z: restores the terminal for the shell, and draws the view again when the job continues.
void fleet_watch::suspend() {
    screen_.leave();
    {
        const signals_through through;
        std::raise(SIGTSTP);
    }
    if (drawing_) {
        screen_.enter();
    }
}

int fleet_watch::run() {
    if (drawing_) {
        screen_.enter();
    }
    while (step(std::min(ask_due(), draw_due()))) {
        if (draw_due() <= clock::now()) {
            draw_fleet(rows_, keys_);
            drawn_at_ = clock::now();
            news_ = key_pressed_ = false;
        }
    }
    leave();
    screen_.leave();
    // The drawing vanishes with the alternate screen, and the scheduler will not send these messages again.
    if (drawing_) {
        for (const auto& [host, m] : messages_) {
            print(host, m);
        }
    }
    return 0;
}

}  // namespace

int run_fleet_watch(const settings& chosen) {
    return fleet_watch(chosen).run();
}

}  // namespace client
