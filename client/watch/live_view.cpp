#include "options/options.h"
#include "protocol/limits.h"
#include "term/screen.h"
#include "term/signals.h"
#include "watch/drawing.h"
#include "watch/line_writer.h"
#include "watch/poller.h"
#include "watch/watch.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <deque>
#include <functional>
#include <poll.h>
#include <utility>

namespace client {

namespace {

class live_view : private poller {
public:
    explicit live_view(const settings& chosen);
    int run();

private:
    void received(std::size_t host, const status_answer& answer, const status_update& update) override;
    void failed(std::size_t host, const command_result& why, bool is_news) override;
    void polled(std::size_t /*host*/) override { news_ = true; }
    std::optional<std::string> password(std::size_t host) override;

    // The screen shows the view from the first answer on, with several hosts at once, until the operator ends it.
    enum class phase { before, shown, after };

    void begin();
    bool step_view();
    clock::time_point draw_due() const;
    void draw();
    void print(const listed_message& line);
    void without_screen(const std::function<void()>& action);
    bool ended_by_key();

    signal_watch signals_;
    line_writer out_;
    screen screen_;
    phase phase_ = phase::before;
    std::vector<host_row> rows_;
    std::deque<listed_message> messages_;  // oldest first
    std::string notice_;                   // the newest line for the operator
    host_keys keys_;
    clock::time_point drawn_at_{};
    bool news_ = false;         // something has come since the last drawing
    bool key_pressed_ = false;  // since the last drawing
};

live_view::live_view(const settings& chosen)
    : poller(chosen, showing(chosen, mail_kind::operators), false),
      signals_([this] { without_screen([] { std::raise(SIGTSTP); }); }) {
    for (std::size_t number = 0; number < chosen.hosts.size(); ++number) {
        const host_name& host = chosen.hosts[number];
        rows_.push_back(
            {chosen.several ? host.label : host.name + ":" + std::to_string(host.port), known(number)});
    }
}

void live_view::begin() {
    if (phase_ == phase::before) {
        phase_ = phase::shown;
        screen_.enter();
    }
}

void live_view::received(std::size_t host, const status_answer& answer, const status_update& update) {
    host_row& row = rows_[host];
    if (row.known.up) {
        row.since.clear();
        begin();
    }
    for (const event& m : update.messages) {
        row.lost += m.lost;
        row.newest = m.lost == 0 ? m : row.newest;
        if (phase_ == phase::after) {
            print({host, m});
        } else {
            messages_.push_back({host, m});
        }
    }
    // What was never shown stays in the mailbox.
    while (messages_.size() > (chosen_.several ? max_listed : max_messages)) {
        messages_.pop_front();
    }
    const std::string notices = notices_of(host, answer);
    notice_ = notices.empty() ? notice_ : notices;
}

// Later failures of an outage keep the date of the first.
void live_view::failed(std::size_t host, const command_result& /*why*/, bool /*is_news*/) {
    std::string& since = rows_[host].since;
    since = since.empty() ? now_date() : since;
}

std::optional<std::string> live_view::password(std::size_t host) {
    std::optional<std::string> answer;
    without_screen([&] { answer = poller::password(host); });
    return answer;
}

// For the prompt of a password, and for Ctrl-Z: then it draws the view again when the job continues.
void live_view::without_screen(const std::function<void()>& action) {
    screen_.leave();
    {
        const signals_through through;
        action();
    }
    if (phase_ == phase::shown) {
        screen_.enter();
        key_pressed_ = true;
    }
}

// Draws at once after a key, at a limited rate while many answers come, and each second to update the ages.
poller::clock::time_point live_view::draw_due() const {
    if (phase_ != phase::shown) {
        return clock::time_point::max();
    }
    if (key_pressed_) {
        return drawn_at_;
    }
    return drawn_at_ + (news_ ? std::chrono::milliseconds(200) : std::chrono::milliseconds(1000));
}

void live_view::draw() {
    drawn_at_ = clock::now();
    news_ = key_pressed_ = false;
    if (chosen_.several) {
        for (const std::size_t host : draw_hosts(rows_, notice_, keys_)) {
            shown(std::exchange(rows_[host].newest.id, 0));
        }
        return;
    }
    std::size_t drawn = draw_host(rows_[0], notice_, messages_);
    for (auto m = messages_.rbegin(); drawn != 0; ++m, --drawn) {
        shown(std::exchange(m->what.id, 0));
    }
}

bool live_view::ended_by_key() {
    std::string typed;
    const bool more = screen_.take_keys(typed);
    key_pressed_ = true;
    if (chosen_.several) {
        keys_.handle(typed);
    }
    return !more || keys_.quits || (!chosen_.several && typed.find('q') != std::string::npos);
}

// Handles one event of the hosts, the keyboard or signals. Returns false when the operator ends the view.
bool live_view::step_view() {
    pollfd ready[] = {{signals_.fd(), POLLIN, 0}, {screen_.keyboard(), POLLIN, 0}};
    step(ready, draw_due());
    if (ready[0].revents != 0 && signals_.take()) {
        return false;
    }
    // A new size needs a new drawing at once, like a key.
    key_pressed_ = signals_.resized() || key_pressed_;
    if (ready[1].revents != 0 && ended_by_key()) {
        return false;
    }
    if (draw_due() <= clock::now()) {
        draw();
    }
    return true;
}

void live_view::print(const listed_message& line) {
    if (out_.print(chosen_.prefix_of(line.host) + line.what.date + " " + line.what.text)) {
        shown(line.what.id);
    }
}

int live_view::run() {
    if (chosen_.several) {
        begin();
    }
    while (!given_up() && step_view()) {
    }
    screen_.leave();
    phase_ = phase::after;
    std::for_each(messages_.begin(), messages_.end(), [this](const listed_message& m) { print(m); });
    pollfd signal[] = {{signals_.fd(), POLLIN, 0}};
    finish(signal);
    std::fputs(notice_.c_str(), stderr);
    return report_given_up(out_.exit_code());
}

}  // namespace

int run_live_view(const settings& chosen) {
    return live_view(chosen).run();
}

}  // namespace client
