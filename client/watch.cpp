#include "watch.h"

#include "changes.h"
#include "conversation.h"
#include "options.h"
#include "screen.h"
#include "signals.h"
#include "spool.h"
#include "watch_view.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <unistd.h>

namespace client {

namespace {

class watch {
public:
    explicit watch(const settings& chosen)
        : chosen_(chosen),
          signals_([this] { suspend(); }),
          talk_(chosen, &signals_, on_silence::resume),
          drawing_(can_draw()) {
        shown_.title = chosen.where.host + ":" + std::to_string(chosen.where.port);
    }
    int run();

private:
    bool look(answer_end& end);
    void take(const status_report& report);
    bool pause();
    void part();
    bool left_by_key() const;
    void suspend();

    const settings& chosen_;
    signal_watch signals_;
    conversation talk_;
    std::string answer_;  // as far as it has come
    bool drawing_;
    screen screen_;
    bool answered_ = false;  // the scheduler has answered once: from now on a lost connection is made again
    watch_picture shown_;
};

// Asks for the status once, or waits on for an answer that is late. Returns false when asking again would be useless.
bool watch::look(answer_end& end) {
    const conversation::sink keep = [this](std::string_view part) { answer_ += part; };
    if (!talk_.late() || (end = talk_.resume(keep)).how == ending::unauth) {
        answer_.clear();
        end = talk_.run({"status"}, keep);
    }
    if (end.how == ending::over) {
        if (!drawing_ && answered_ && !shown_.trouble.empty()) {
            print_line({now_date(), "connected"});
        }
        const status_report report = parse_status(answer_);
        // True for the first answer, and for the first one after a lost connection.
        if (!answered_ || !shown_.trouble.empty()) {
            // Adds the messages that `check` or `metrics` of this user received while there was no connection.
            spool(chosen_.where).hand_over_with(report, [this](const status_report& both) {
                take(both);
                return true;
            });
        } else {
            take(report);
        }
        answered_ = true;
        shown_.trouble.clear();
        return true;
    }
    // A lost connection may come back; a refused login or a wrong option will not change.
    const bool passing = end.how == ending::closed || end.how == ending::unsent || end.how == ending::silent;
    if (!answered_ || !passing) {
        return false;
    }
    if (!drawing_ && shown_.trouble.empty()) {
        print_line({now_date(), "disconnected: " + describe(end)});
    }
    shown_.trouble = describe(end);
    return true;
}

void watch::take(const status_report& report) {
    if (!drawing_) {
        for (const message& line : changes(shown_.conditions, report)) {
            print_line(line);
        }
    }
    shown_.conditions = report.conditions;
    shown_.messages.insert(shown_.messages.end(), report.messages.begin(), report.messages.end());
    if (report.lost != 0) {
        shown_.messages.push_back({now_date(), std::to_string(report.lost) + " messages were lost"});
    }
    while (shown_.messages.size() > most_messages) {
        shown_.messages.pop_front();
    }
}

// Waits until the next status request is due. A drawn view is updated each second and when its size changes. Returns
// false when the operator ends the view.
bool watch::pause() {
    using clock = std::chrono::steady_clock;
    const clock::time_point due = clock::now() + std::chrono::seconds(chosen_.interval);
    for (;;) {
        if (drawing_) {
            draw(shown_);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - clock::now()).count();
        if (left <= 0) {
            return true;
        }
        pollfd ready[] = {{signals_.fd(), POLLIN, 0}, {screen_.keyboard(), POLLIN, 0}};
        // A drawing shows ages and the time of day, so it is updated each second.
        const auto limit = drawing_ ? std::min<decltype(left)>(left, 1000) : left;
        if (poll(ready, 2, static_cast<int>(limit)) <= 0) {
            continue;
        }
        if ((ready[0].revents != 0 && signals_.take()) || (ready[1].revents != 0 && left_by_key())) {
            return false;
        }
    }
}

// Fetches what was queued for this connection since the last answer. Nobody can once it is closed. The operator does not
// wait for a scheduler that is silent.
void watch::part() {
    if (talk_.late()) {
        return;
    }
    std::string text;
    const answer_end end = talk_.take_leave([&text](std::string_view more) { text += more; });
    status_report report = parse_status(text);
    if (end.how != ending::over) {
        report.conditions = shown_.conditions;  // the answer lacks some
    }
    take(report);
}

bool watch::left_by_key() const {
    std::string keys;
    return !screen_.take_keys(keys) || keys.find('q') != std::string::npos;
}

// Ctrl-Z: restores the terminal for the shell, and draws the view again when the job continues.
void watch::suspend() {
    screen_.leave();
    {
        const signals_through through;
        std::raise(SIGTSTP);
    }
    if (answered_ && drawing_) {
        screen_.enter();
    }
}

int watch::run() {
    answer_end end;
    bool going = look(end);
    if (going && drawing_) {
        screen_.enter();
    }
    while (going && pause()) {
        going = look(end);
    }
    if (going) {
        part();
    }
    screen_.leave();
    // The drawing vanishes with the alternate screen, and the scheduler will not send these messages again.
    if (drawing_) {
        for (const message& m : shown_.messages) {
            print_line(m);
        }
    }
    if (going || end.how == ending::interrupted) {
        return 0;
    }
    std::fprintf(stderr, "schedctl: %s\n", describe(end).c_str());
    return exit_code_of(end);
}

}  // namespace

int run_watch(const settings& chosen) {
    return watch(chosen).run();
}

}  // namespace client
