#include "options/options.h"
#include "term/screen.h"
#include "watch/details.h"
#include "watch/events.h"
#include "watch/live_view.h"
#include "watch/poller.h"
#include "watch/watch.h"

#include <cstdio>
#include <unistd.h>
#include <utility>
#include <vector>

namespace client {

namespace {

// `watch` without a terminal.
class line_output : public poll_output {
public:
    explicit line_output(const settings& chosen, mail_kind kind = mail_kind::operators)
        : chosen_(chosen), poller_(chosen, kind, *this) {}

    int run() { return poller_.run(signals_, out_); }

    void connected(std::size_t host, bool again) override;
    void received(std::size_t host, const status_answer& answer, const status_update& update) override;
    void failed(std::size_t host, const command_result& why, bool is_news) override;
    std::optional<std::string> password(const host_name& host) override { return ask_password_for(host); }

protected:
    virtual bool write(std::size_t host, const event& what) {
        return out_.print(prefix_of(chosen_, host) + what.date + " " + what.text);
    }

    const settings& chosen_;
    signal_watch signals_;
    line_writer out_{signals_};
    poller poller_;
};

void line_output::connected(std::size_t host, bool again) {
    if (again) {
        write(host, connected_event());
    }
}

// A change that cannot be written is not kept: the first answer to the next process lists all conditions again.
void line_output::received(std::size_t host, const status_answer& answer, const status_update& update) {
    for (const condition& c : update.changes.set) {
        write(host, set_event(c));
    }
    for (const condition& c : update.changes.cleared) {
        write(host, cleared_event(c));
    }
    for (const received_message& m : update.messages) {
        if (write(host, received_event(m))) {
            poller_.shown(m.id);
        } else if (m.id == 0) {  // nobody else has it
            std::fprintf(stderr, "%s%s %s\n", prefix_of(chosen_, host).c_str(), m.what.date.c_str(),
                         m.what.text.c_str());
        }
    }
    std::fputs(notices_of(chosen_, host, answer).c_str(), stderr);
}

void line_output::failed(std::size_t host, const command_result& why, bool is_news) {
    if (is_news && !poller_.given_up()) {  // that is reported at the end
        write(host, failed_event(why));
    }
}

// `follow`.
class follower : public line_output {
public:
    explicit follower(const settings& chosen);
    ~follower() override;

    void connected(std::size_t host, bool again) override;
    void received(std::size_t host, const status_answer& answer, const status_update& update) override;
    void failed(std::size_t host, const command_result& why, bool is_news) override;
    void received_detail(std::size_t host, std::size_t number, const std::string& answer) override {
        details()[number].read(answer, states_[host]);
    }
    void polled(std::size_t host) override;
    // Programs cannot be asked.
    std::optional<std::string> password(const host_name& /*host*/) override { return std::nullopt; }

private:
    bool write(std::size_t host, const event& what) override {
        return out_.write(json_line(what, chosen_.hosts[host], chosen_.level_prefix));
    }

    std::vector<snapshot> states_;
    bool save_failed_ = false;
};

follower::follower(const settings& chosen)
    : line_output(chosen, mail_kind::followers), states_(chosen.hosts.size()) {
    for (std::size_t host = 0; host < states_.size(); ++host) {
        states_[host].totals = counters_of(key_of(chosen.hosts[host])).totals;  // also without an answer
    }
}

void follower::connected(std::size_t host, bool /*again*/) {
    snapshot& state = states_[host];
    state.up = true;
    state.failure = 0;
    state.problem.clear();
    write(host, connected_event());
}

void follower::received(std::size_t host, const status_answer& answer, const status_update& update) {
    line_output::received(host, answer, update);
    snapshot& state = states_[host];
    for (const received_message& m : update.messages) {
        if (m.lost == 0) {
            state.messages.push_back(m.what);
        }
    }
    keep_newest(state.messages);
    state.conditions = update.conditions;
    state.totals = answer.totals;
    if (answer.complete) {
        state.answered = wall_clock();
        state.answer_seconds = answer.seconds;
        state.uptime_minutes = uptime_of(chosen_.hosts[host]);  // from a local file, so it needs no request
    }
}

// The conditions stay as they were, so that the next answer tells only what has changed since.
void follower::failed(std::size_t host, const command_result& why, bool is_news) {
    snapshot& state = states_[host];
    state.up = false;
    state.failure = exit_code_of(why);
    state.problem = describe(why);
    if (!is_news) {
        return;
    }
    write(host, failed_event(why));
    if (chosen_.several && is_refusal(why.how)) {
        std::fprintf(stderr, "schedctl: %s%s\n", prefix_of(chosen_, host).c_str(), state.problem.c_str());
    }
}

// A failure is reported once, because a full disk would give a line in each interval. Without a directory for the file,
// following works all the same.
void follower::polled(std::size_t host) {
    const std::string path = state_file_to_write(chosen_.hosts[host]);
    std::string problem;
    if (!path.empty() && !write_state_file(path, states_[host], chosen_.interval, problem) &&
        !std::exchange(save_failed_, true)) {
        std::fprintf(stderr, "schedctl: the state file cannot be written: %s\n", problem.c_str());
    }
}

follower::~follower() {
    for (const host_name& host : chosen_.hosts) {
        unlink(
            state_file_to_write(host).c_str());  // a failure is ignored: readers soon find that it is too old
    }
}

}  // namespace

int run_watch(const settings& chosen) {
    return can_draw() ? run_live_view(chosen) : line_output(chosen).run();
}

int run_follow(const settings& chosen) {
    return follower(chosen).run();
}

}  // namespace client
