#include "follow.h"

#include "conversation.h"
#include "follow_lines.h"
#include "options.h"
#include "signals.h"
#include "snapshot.h"
#include "spool.h"
#include "text.h"
#include "visit.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <poll.h>
#include <unistd.h>

namespace client {

namespace {

using steady = std::chrono::steady_clock;

constexpr unsigned usual_silence = 10;                // seconds, when the operator names none
constexpr std::chrono::seconds details_interval{15};  // connections, modules and jobs seldom change
constexpr unsigned farewell_silence = 3;              // seconds

settings with_limit(settings chosen, unsigned usual) {
    if (chosen.where.timeout == 0) {
        chosen.where.timeout = usual;
    }
    return chosen;
}

bool holds(const std::vector<condition>& all, const condition& one, bool with_date) {
    return std::any_of(all.begin(), all.end(), [&](const condition& c) {
        return c.name == one.name && (!with_date || c.since == one.since);
    });
}

class follower {
public:
    explicit follower(const settings& chosen);
    int run();

private:
    void look();
    void answered();
    void not_answered(const answer_end& end);
    void emit_changes(const std::vector<condition>& now);
    bool emit_messages(const status_report& report);
    void take_messages(const status_report& report);
    void emit(const std::string& line);
    void save();
    bool pause();
    void leave();

    const settings chosen_;
    follow_lines lines_;
    signal_watch signals_;
    conversation talk_;
    spool spool_;
    std::string state_path_;
    snapshot known_;
    std::string answer_;          // of the status that was asked for, as far as it has come
    bool details_late_ = false;   // the answer that is late is not the status
    steady::time_point asked_{};  // when the status was asked for
    steady::time_point details_due_{};
    bool told_down_ = false;
    bool save_failed_ = false;
    bool reader_gone_ = false;
    bool ending_ = false;
    int exit_code_ = 0;
};

follower::follower(const settings& chosen)
    : chosen_(with_limit(chosen, usual_silence)),
      lines_(chosen_.where, chosen.level_prefix),
      talk_(chosen_, &signals_, on_silence::stay),
      spool_(chosen_.where),
      state_path_(state_file_to_write(chosen_.where)) {
    signals_.watch_reader_of(STDOUT_FILENO);
    std::signal(SIGPIPE, SIG_IGN);
    if (const std::optional<snapshot> before = followed_state(chosen_.where)) {
        known_.totals = before->totals;  // counters go on across a restart of the follower
    }
}

// One line with one write, so that it is out at once.
void follower::emit(const std::string& line) {
    if (!reader_gone_ && !write_all(STDOUT_FILENO, line)) {
        reader_gone_ = true;
    }
}

void follower::look() {
    answer_end end;
    if (details_late_) {
        end = talk_.resume([](std::string_view) {});
        details_late_ = talk_.late();
        if (details_late_) {  // given up once more
            return not_answered(end);
        }
    }
    const auto collect = [this](std::string_view part) { answer_ += part; };
    if (talk_.late()) {
        end = talk_.resume(collect);
    } else {
        answer_.clear();
        asked_ = steady::now();
        end = talk_.run({"status"}, collect);
    }
    if (end.how == ending::over) {
        answered();
    } else {
        not_answered(end);
    }
}

void follower::answered() {
    known_.answer_seconds = std::chrono::duration<double>(steady::now() - asked_).count();
    known_.answered = wall_clock();
    if (!known_.up) {
        known_.up = true;
        known_.failure = 0;
        known_.problem.clear();
        told_down_ = false;
        details_due_ = {};
        emit(lines_.connected());
        spool_.hand_over([this](const status_report& waiting) { return emit_messages(waiting); });
    }
    const status_report report = parse_status(answer_);
    emit_changes(report.conditions);
    take_messages(report);
    if (steady::now() >= details_due_) {
        details_due_ = steady::now() + details_interval;
        answer_end end;
        ask_details(talk_, known_, end);
        details_late_ = talk_.late();
        ending_ = end.how == ending::interrupted;
    }
    known_.uptime_minutes = uptime_of(chosen_.where);
}

void follower::not_answered(const answer_end& end) {
    if (end.how == ending::interrupted) {
        ending_ = true;
        return;
    }
    known_.up = false;
    known_.failure = exit_code_of(end);
    known_.problem = describe(end);
    if (!told_down_) {
        told_down_ = true;
        emit(lines_.disconnected(known_.problem));
    }
    if (end.how == ending::closed || end.how == ending::unsent) {
        status_report cut = parse_status(answer_);  // what came before the end has been handed over
        answer_.clear();
        take_messages(cut);
    } else if (end.how != ending::silent) {
        std::fprintf(stderr, "schedctl: %s\n", known_.problem.c_str());
        exit_code_ = exit_code_of(end);
        ending_ = true;
    }
}

void follower::emit_changes(const std::vector<condition>& now) {
    for (const condition& c : now) {
        if (!holds(known_.conditions, c, true)) {
            emit(lines_.set(c));
        }
    }
    for (const condition& c : known_.conditions) {
        if (!holds(now, c, false)) {
            emit(lines_.cleared(c));
        }
    }
    known_.conditions = now;
}

// true when all of it was written.
bool follower::emit_messages(const status_report& report) {
    for (const message& m : report.messages) {
        emit(lines_.received(m));
    }
    if (report.lost != 0) {
        emit(lines_.lost(report.lost));
    }
    return !reader_gone_;
}

void follower::take_messages(const status_report& report) {
    if (!emit_messages(report)) {
        spool_content content;
        std::string problem;
        spool_.append(report, content, problem);
    }
    known_.totals.add(report);
    known_.messages.insert(known_.messages.end(), report.messages.begin(), report.messages.end());
    keep_newest(known_.messages);
}

// A reader takes the file for fresh until the next one is due at the latest: an interval, a silence, and some delay.
void follower::save() {
    if (state_path_.empty()) {
        return;
    }
    const double longest = 2.0 * chosen_.interval + chosen_.where.timeout + 2.0;
    std::string problem;
    if (!write_state_file(state_path_, known_, wall_clock() + longest, problem) && !save_failed_) {
        save_failed_ = true;
        std::fprintf(stderr, "schedctl: no state is kept: %s\n", problem.c_str());
    }
}

// Waits until the next look is due; false when it is time to end.
bool follower::pause() {
    const steady::time_point due = asked_ + std::chrono::seconds(chosen_.interval);
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - steady::now()).count();
        if (left <= 0) {
            return true;
        }
        pollfd ready{signals_.fd(), POLLIN, 0};
        if (poll(&ready, 1, static_cast<int>(left)) > 0 && signals_.take()) {
            return false;
        }
    }
}

// What waits for this connection is fetched before it goes.
void follower::leave() {
    const auto collect = [this](std::string_view part) { answer_ += part; };
    talk_.set_limit(farewell_silence);
    if (details_late_) {
        talk_.resume([](std::string_view) {});
    } else if (talk_.late()) {
        talk_.resume(collect);
        take_messages(parse_status(answer_));
    }
    answer_.clear();
    if (!talk_.late()) {
        talk_.take_leave(collect);
        take_messages(parse_status(answer_));
    }
    if (!state_path_.empty()) {
        unlink(state_path_.c_str());
    }
}

int follower::run() {
    do {
        look();
        save();
    } while (!ending_ && !reader_gone_ && pause());
    leave();
    return exit_code_;
}

}  // namespace

int run_follow(const settings& chosen) {
    return follower(chosen).run();
}

}  // namespace client
