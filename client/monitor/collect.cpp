#include "monitor/collect.h"

#include "options/options.h"
#include "protocol/limits.h"
#include "term/output.h"
#include "watch/poller.h"

#include <cstdio>

namespace {

class collector : private poller {
public:
    explicit collector(const settings& chosen) : poller(chosen), left_(chosen.hosts.size()) {}

    // Asks all hosts, and waits until all have answered or the time-out is over. Returns what is known, in their order.
    std::vector<snapshot> run() {
        const std::chrono::seconds limit(chosen_.connect.timeout);
        const clock::time_point until = clock::now() + (limit.count() != 0 ? limit : default_timeout);
        for (std::size_t host = 0; host < chosen_.hosts.size(); ++host) {
            if (followed_.emplace_back(followed_state(chosen_.hosts[host]))) {
                polled(host);
            }
        }
        while (left_ != 0 && clock::now() < until) {
            step({}, until);
        }
        bool silent = false;
        for (std::size_t host = 0; host < followed_.size(); ++host) {
            late(host);  // does nothing when the host is done
            silent = silent || (!followed_[host] && known(host).failure == exit_silence);
        }
        // Waits, so that the next command finds the messages stored. For a silent scheduler only the agent waits.
        if (!silent) {
            finish();
        }
        std::vector<snapshot> all;
        for (std::size_t host = 0; host < followed_.size(); ++host) {
            all.push_back(followed_[host].value_or(known(host)));
        }
        return all;
    }

private:
    void received(std::size_t, const status_answer& answer, const std::vector<event>&) override {
        report_unstored(answer);
    }

    // Messages that come later are stored, and the next call reports them.
    void polled(std::size_t host) override {
        --left_;
        close(host);
    }

    std::vector<std::optional<snapshot>> followed_;
    std::size_t left_;  // hosts that are not done
};

}  // namespace

std::vector<snapshot> collect(const settings& chosen) { return collector(chosen).run(); }

void report_unstored(const status_answer& answer) {
    if (answer.unstored.empty()) {
        return;
    }
    complain(answer.unstored + "; messages that could not be stored:");
    for (const status_line& line : answer.lines) {
        if (line.id == 0 && line.is_message) {
            std::fprintf(stderr, "%s\n", line.text.c_str());
        }
    }
}
