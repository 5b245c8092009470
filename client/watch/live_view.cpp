#include "options/options.h"
#include "protocol/limits.h"
#include "term/output.h"
#include "term/screen.h"
#include "term/signals.h"
#include "watch/drawing.h"
#include "watch/poller.h"
#include "watch/watch.h"

#include <algorithm>
#include <cstdio>

namespace {

class live_view : private poller {
public:
    explicit live_view(const settings& chosen)
        : poller(chosen), signals_([this] { without_screen([] { std::raise(SIGTSTP); }); }) {
        for (std::size_t number = 0; number < chosen.hosts.size(); ++number) {
            const host_name& host = chosen.hosts[number];
            rows_.push_back({chosen.several ? host.label : host.name + ":" + std::to_string(host.port), known(number)});
        }
    }

    int run() {
        if (chosen_.several) {
            screen_.enter();
        }
        while (!given_up() && step_view()) {
        }
        screen_.leave();
        is_over_ = true;
        std::for_each(messages_.begin(), messages_.end(), [this](const listed_message& m) { print(m); });
        pollfd signal[] = {{signals_.fd(), POLLIN, 0}};
        finish(signal);
        std::fputs(notice_.c_str(), stderr);
        return report_given_up(out_.exit_code());
    }

private:
    void received(std::size_t host, const status_answer& answer, const std::vector<event>& news) override {
        host_row& row = rows_[host];
        if (row.known.up) {
            row.since.clear();
            if (!is_over_) {
                screen_.enter();
            }
        }
        for (const event& m : news) {
            row.lost += m.lost;
            row.newest = m.is_message() && m.lost == 0 ? m : row.newest;
            if (m.is_message() && is_over_) {
                print({host, m});
            } else if (m.is_message()) {
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
    void failed(std::size_t host, const command_result& /*why*/, bool /*is_news*/) override {
        std::string& since = rows_[host].since;
        since = since.empty() ? now_date() : since;
    }

    void polled(std::size_t /*host*/) override { news_ = true; }

    std::optional<std::string> ask_password(std::size_t host) override {
        std::optional<std::string> problem;
        without_screen([&] { problem = poller::ask_password(host); });
        return problem;
    }

    // Handles one event of the hosts, the keyboard or signals. Returns false when the operator ends the view.
    bool step_view() {
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

    // Draws at once after a key, at a limited rate while many answers come, and each second to update the ages.
    clock::time_point draw_due() const {
        const std::chrono::milliseconds pause(key_pressed_ ? 0 : news_ ? 200 : 1000);
        return screen_.is_entered() ? drawn_at_ + pause : clock::time_point::max();
    }

    void draw() {
        drawn_at_ = clock::now();
        news_ = key_pressed_ = false;
        std::vector<std::uint64_t> ids;
        for (event* message :
             chosen_.several ? draw_hosts(rows_, notice_, keys_) : draw_host(rows_[0], notice_, messages_)) {
            if (const std::uint64_t id = std::exchange(message->id, 0); id != 0) {
                ids.push_back(id);
            }
        }
        if (!ids.empty()) {  // each drawing would wake the agent
            shown(ids);
        }
    }

    void print(const listed_message& line) {
        if (out_.print(chosen_.prefix_of(line.host) + line.what.date + " " + line.what.text)) {
            shown({line.what.id});
        }
    }

    // For the prompt of a password, and for Ctrl-Z: the view is drawn again when the job continues.
    void without_screen(const std::function<void()>& action) {
        const bool is_shown = screen_.is_entered();
        screen_.leave();
        with_usual_signals(action);
        if (is_shown) {
            screen_.enter();
            key_pressed_ = true;
        }
    }

    bool ended_by_key() {
        std::string typed;
        const bool more = screen_.take_keys(typed);
        key_pressed_ = true;
        if (chosen_.several) {
            keys_.handle(typed);
        }
        return !more || keys_.quits || (!chosen_.several && typed.find('q') != std::string::npos);
    }

    signal_watch signals_;
    line_writer out_;
    screen screen_;         // entered with the first answer; with several hosts, at once
    bool is_over_ = false;  // the view has ended: messages are printed
    std::vector<host_row> rows_;
    std::deque<listed_message> messages_;  // oldest first
    std::string notice_;                   // the newest line for the operator
    host_keys keys_;
    clock::time_point drawn_at_{};
    bool news_ = false;         // something has come since the last drawing
    bool key_pressed_ = false;  // since the last drawing
};

}  // namespace

int run_live_view(const settings& chosen) { return live_view(chosen).run(); }
