#include "monitor/collect.h"

#include "options/options.h"
#include "protocol/limits.h"
#include "term/output.h"
#include "watch/poller.h"

#include <algorithm>
#include <cstdio>

namespace client {

namespace {

class collector : private poller {
public:
    collector(const settings& chosen, bool with_details);

    // Asks all hosts and returns what is known of them at that time, in their order.
    std::vector<snapshot> run(clock::time_point until);

private:
    void received(std::size_t, const status_answer& answer, const status_update&) override {
        report_unstored(answer);
    }
    void polled(std::size_t host) override;

    std::vector<std::optional<snapshot>> followed_;
    std::size_t left_;  // hosts that are not done
};

collector::collector(const settings& chosen, bool with_details)
    : poller(chosen, collecting(chosen, stored_messages::looked_at), with_details),
      left_(chosen.hosts.size()) {}

// Messages that come later are stored, and the next call reports them.
void collector::polled(std::size_t host) {
    --left_;
    close(host);
}

std::vector<snapshot> collector::run(clock::time_point until) {
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
        late(host);  // unless it is done
        silent = silent || (!followed_[host] && known(host).failure == exit_silence);
    }
    // So that the next command finds the messages stored. A silent scheduler is left to the agent.
    if (!silent) {
        finish();
    }
    std::vector<snapshot> all;
    for (std::size_t host = 0; host < followed_.size(); ++host) {
        all.push_back(followed_[host].value_or(known(host)));
    }
    return all;
}

}  // namespace

std::vector<snapshot> collect(const settings& chosen, bool with_details) {
    const unsigned seconds = chosen.connect.timeout;
    return collector(chosen, with_details)
        .run(agent_client::clock::now() + (seconds != 0 ? std::chrono::seconds(seconds) : default_timeout));
}

void report_unstored(const status_answer& answer) {
    if (answer.unstored.empty()) {
        return;
    }
    complain(answer.unstored + "; messages that could not be stored:");
    for (const status_line& line : answer.lines) {
        if (line.id == 0 && kind_of(line.text) != status_line_kind::condition) {
            std::fprintf(stderr, "%s\n", line.text.c_str());
        }
    }
}

agent_options collecting(const settings& chosen, stored_messages stored) {
    agent_options how{
        .connect = chosen.connect, .parallel = chosen.parallel, .must_store = true, .stored = stored};
    how.connect.user.clear();  // no greeting: it runs a module, and might have to wait for another one
    return how;
}

}  // namespace client
