// Asks schedulers for their status, each at its interval. Three classes are made of it: lines of changes, the live
// view, and one round for `check` and `metrics`.
#pragma once

#include "agent/agent_client.h"
#include "watch/inquiry.h"

struct settings;

// host is the number in the list. Only step() and finish() call the virtual functions.
class poller : private agent_listener {
public:
    using clock = agent_client::clock;

    // The rounds of `follow` and `metrics` also ask for the details of an inquiry, at most every 15 seconds. With one
    // host, `follow` waits for a scheduler that does not run yet; `watch` gives up.
    explicit poller(const settings& chosen);
    virtual ~poller() = default;

protected:
    // An answer, complete or as far as it came, and what it brings. After an outage that begins with connected_event();
    // for `follow`, with the first answer, too. Call shown() for each message that was written.
    virtual void received(std::size_t host, const status_answer& answer, const std::vector<event>& news) = 0;
    // There is no answer. is_news: the first time in this outage, or the scheduler refuses for the first time.
    virtual void failed(std::size_t /*host*/, const command_result& /*why*/, bool /*is_news*/) {}
    // The round of this host is complete; also called once in each interval of a silence.
    virtual void polled(std::size_t /*host*/) {}
    // Asks at the terminal for the password that `watch` needs. Returns the reason when there is none.
    virtual std::optional<std::string> ask_password(std::size_t host) { return agent_.ask_password(host); }

    const snapshot& known(std::size_t host) const { return states_[host].round.known; }

    // Asks the hosts that are due, then waits as agent_client::step() does.
    void step(std::span<pollfd> others, clock::time_point until);

    // These messages were written to the operator's output. 0 is ignored.
    void shown(const std::vector<std::uint64_t>& ids) { agent_.shown(ids); }

    // The host has not answered within the limit of the agent, or within the caller's own.
    void late(std::size_t host);

    // The host is not asked again, and its connection is closed.
    void close(std::size_t host);

    // Closes the connections; what the last answers bring goes to the output. Ends early when one of them is readable.
    void finish(std::span<pollfd> others = {});

    // The lines of an answer that are for the operator's standard error.
    std::string notices_of(std::size_t host, const status_answer& answer) const;

    // Why asking a single host again is useless: it refuses, or it has not answered the first question. Several hosts
    // are never given up.
    const std::optional<command_result>& given_up() const { return given_up_; }

    // Reports that reason, if there is one, to the operator. Returns its exit code, else `otherwise`.
    int report_given_up(int otherwise) const;

    const settings& chosen_;

private:
    struct host_state {
        inquiry round;
        bool refused = false;       // in this outage
        bool closed = false;        // by close()
        std::uint32_t request = 0;  // under way; 0: none
        clock::time_point due{};    // next status; while a request is under way: the next call of polled()
        clock::time_point details_due{};
    };

    void ask(std::size_t host, clock::time_point now);
    clock::time_point ask_due();
    void output(std::size_t host, std::uint32_t /*request*/, const std::string& text) override {
        states_[host].round.output(text);
    }
    void status(std::size_t host, const status_answer& answer) override;
    void ended(std::size_t host, std::uint32_t request, const command_result& end) override;
    void password_needed(std::size_t host) override;
    void fail(std::size_t host, const command_result& why);

    const std::chrono::seconds interval_;
    std::vector<host_state> states_;
    clock::time_point next_due_{};  // no host is due before
    std::optional<command_result> given_up_;
    bool finishing_ = false;
    agent_client agent_;  // last: its events use the members above
};

// True when trying again soon is useless: neither a lost connection nor silence.
bool is_refusal(outcome how);

// The settings of the agent. `watch` and `follow` show what they receive. `check` and `metrics` store all of it and
// show nothing.
agent_options asking(const settings& chosen);
