#include "monitor/collect.h"

#include "agent/agent_client.h"
#include "options/options.h"
#include "protocol/limits.h"
#include "watch/details.h"

#include <algorithm>
#include <cstdio>

namespace client {

namespace {

using clock = agent_client::clock;

class collector {
public:
    collector(const settings& chosen, bool with_details);

    // Asks all hosts and returns what is known of them at that time, in their order.
    std::vector<snapshot> run(clock::time_point until);

private:
    struct asked_host {
        collection work;
        bool done = false;
    };

    agent_listener events();
    void status(std::size_t host, const status_answer& answer);
    void ended(std::size_t host, const command_result& end);

    std::vector<asked_host> hosts_;
    std::size_t left_;    // hosts that are not done
    agent_client agent_;  // last, because its events use the members above
};

collector::collector(const settings& chosen, bool with_details)
    : hosts_(chosen.hosts.size(), asked_host{collection(with_details)}),
      left_(hosts_.size()),
      agent_(chosen.hosts, collecting(chosen, stored_messages::looked_at), events()) {}

agent_listener collector::events() {
    return {
        [this](std::size_t host, std::uint32_t, std::string_view text) { hosts_[host].work.output(text); },
        [this](std::size_t host, const status_answer& answer) { status(host, answer); },
        [this](std::size_t host, std::uint32_t, const command_result& end) { ended(host, end); },
        [this](std::size_t host, std::uint32_t) { ended(host, outcome::no_answer); },
        [](std::size_t, std::size_t, bool) {},
        [this](std::size_t host) { agent_.password(host, std::nullopt); },
    };
}

void collector::status(std::size_t host, const status_answer& answer) {
    report_unstored(answer);
    hosts_[host].work.status(answer);
}

void collector::ended(std::size_t host, const command_result& end) {
    asked_host& asked = hosts_[host];
    if (asked.done) {
        return;  // what comes late is stored, and the next call has it
    }
    if (asked.work.ended(end)) {
        agent_.ask(host, asked.work.words());
        return;
    }
    asked.done = true;
    --left_;
    agent_.close(host);
}

std::vector<snapshot> collector::run(clock::time_point until) {
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        if (std::optional<snapshot> followed = followed_state(agent_.hosts()[host])) {
            hosts_[host].work.known = std::move(*followed);
            hosts_[host].done = true;
            --left_;
        } else {
            agent_.ask(host, hosts_[host].work.words());
        }
    }
    while (left_ != 0 && clock::now() < until) {
        agent_.step({}, until);
    }
    bool silent = false;
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        silent = silent || !hosts_[host].done || hosts_[host].work.known.failure == exit_silence;
        ended(host, outcome::no_answer);
    }
    // So that the next command finds the messages stored. A silent scheduler is left to the agent.
    if (!silent) {
        agent_.finish();
    }
    std::vector<snapshot> known;
    for (std::size_t host = 0; host < hosts_.size(); ++host) {
        hosts_[host].work.complete(agent_.hosts()[host]);
        known.push_back(std::move(hosts_[host].work.known));
    }
    return known;
}

}  // namespace

collection::collection(bool with_details) : next_(with_details ? 0 : details().size()) {}

const std::vector<std::string>& collection::words() const {
    static const std::vector<std::string> status_words = {"status"};
    return next_ < details().size() ? details()[next_].words : status_words;
}

void collection::status(const status_answer& answer) {
    const status_report report = report_of(answer);
    known.messages.insert(known.messages.end(), report.messages.begin(), report.messages.end());
    keep_newest(known.messages);
    known.totals = answer.totals;
    if (!answer.last) {
        known.conditions = report.conditions;
        known.answer_seconds = answer.seconds;
    }
}

bool collection::ended(const command_result& end) {
    // A scheduler that does not know a command, or has it switched off, leaves that part as it was.
    if (next_ < details().size() &&
        (end.how == outcome::over || end.how == outcome::unsupported || end.how == outcome::busy)) {
        if (end.how == outcome::over) {
            details()[next_].read(answer_, known);
        }
        answer_.clear();
        ++next_;
        return true;
    }
    known.up = end.how == outcome::over;
    if (known.up) {
        known.answered = wall_clock();
    } else {
        known.failure = exit_code_of(end);
        known.problem = describe(end);
    }
    return false;
}

void collection::complete(const host_name& host) {
    if (!known.up) {
        // A counter that falls to 0 and returns would look like growth.
        known.totals = counters_of(key_of(host)).totals;
    }
    known.uptime_minutes = uptime_of(host);
}

bool is_own_fault(const snapshot& known) {
    return !known.up && known.failure != exit_connection && known.failure != exit_silence;
}

std::vector<snapshot> collect(const settings& chosen, bool with_details) {
    const unsigned seconds = chosen.connect.timeout;
    return collector(chosen, with_details)
        .run(clock::now() + (seconds != 0 ? std::chrono::seconds(seconds) : default_timeout));
}

void report_unstored(const status_answer& answer) {
    if (answer.unstored.empty()) {
        return;
    }
    std::fprintf(stderr, "schedctl: %s; messages that could not be stored:\n", answer.unstored.c_str());
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
