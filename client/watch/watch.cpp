#include "watch/watch.h"

#include "options/options.h"
#include "term/output.h"
#include "term/screen.h"
#include "term/signals.h"
#include "watch/poller.h"

#include <cstdio>
#include <unistd.h>

namespace {

// `watch` without a terminal, and `follow`: a line for each thing that happens.
class line_output : private poller {
public:
    explicit line_output(const settings& chosen) : poller(chosen), follows_(chosen.what == task::follow) {}

    ~line_output() override {
        for (const host_name& host : chosen_.hosts) {
            if (follows_) {
                remove_state_file(host);
            }
        }
    }

    int run() {
        bool is_stopped = false;
        while (!is_stopped && out_.is_open() && !given_up()) {
            // No event is requested: poll still reports that the reader has gone, even while nothing is written.
            pollfd others[] = {{signals_.fd(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
            step(others, clock::time_point::max());
            is_stopped = others[1].revents != 0 || (others[0].revents != 0 && signals_.take());
        }
        pollfd signal[] = {{signals_.fd(), POLLIN, 0}};
        finish(signal);
        return report_given_up(out_.exit_code());
    }

private:
    // A change that cannot be written is not kept: the first answer to the next process lists all conditions again.
    void received(std::size_t host, const status_answer& answer, const std::vector<event>& news) override {
        for (const event& what : news) {
            const bool is_written = write(host, what);
            if (is_written && what.id != 0) {
                shown({what.id});
            } else if (!is_written && what.is_message() && what.id == 0) {  // it is not in the mailbox either
                std::fprintf(stderr, "%s%s %s\n", chosen_.prefix_of(host).c_str(), what.date.c_str(),
                             what.text.c_str());
            }
        }
        std::fputs(notices_of(host, answer).c_str(), stderr);
    }

    void failed(std::size_t host, const command_result& why, bool is_news) override {
        if (!is_news || (given_up() && !follows_)) {  // that is reported at the end
            return;
        }
        write(host, failed_event(why));
        if (follows_ && chosen_.several && is_refusal(why.how)) {
            complain(chosen_.prefix_of(host) + describe(why));
        }
    }

    // The state file of a follower. A failure is reported once, because a full disk would give a line in each interval.
    void polled(std::size_t host) override try {
        if (follows_) {
            write_state_file(chosen_.hosts[host], known(host), chosen_.interval);
        }
    } catch (const std::runtime_error& problem) {
        if (!std::exchange(save_failed_, true)) {
            complain(std::string("the state file cannot be written: ") + problem.what());
        }
    }

    bool write(std::size_t host, const event& what) {
        return follows_ ? out_.write(json_line(what, chosen_.hosts[host], chosen_.level_prefix))
                        : out_.print(chosen_.prefix_of(host) + line_of(what));
    }

    const bool follows_;
    signal_watch signals_;
    line_writer out_;
    bool save_failed_ = false;
};

}  // namespace

int run_watch(const settings& chosen) {
    return chosen.what == task::watch && can_draw() ? run_live_view(chosen) : line_output(chosen).run();
}
