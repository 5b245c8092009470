// The agent of a process as its front sees it. The agent drives the connections to one host or many, and owns the
// mailbox: every message that a scheduler hands over is in the mailbox before anybody sees it, and every connection
// ends with a last `status`. It is a child process in a session of its own, so it finishes its work whatever becomes
// of the front: its end, by any signal, closes the socket between them.
#pragma once

#include "agent/agent.h"

// Gets the events of the hosts. host: the number in the list. Each function may call any function of the client except
// step() and finish().
class agent_listener {
public:
    // Output of a command that is not `status`; line ends are LF. request: the number of the command.
    virtual void output(std::size_t host, std::uint32_t request, const std::string& text) = 0;
    // The answer of `status`, complete or as far as it came; before the ended() of that command. Also what the last
    // `status` of a connection has brought.
    virtual void status(std::size_t host, const status_answer& answer) = 0;
    // The end of a command. request 0: an idle connection was closed by the scheduler. outcome::no_answer: the command
    // was not answered within its limit. It is still under way; another call comes later, or never.
    virtual void ended(std::size_t host, std::uint32_t request, const command_result& end) = 0;
    // close() is done: the last status is stored. waiting: messages of this scheduler that nobody has been shown.
    // held: a command is still under way, so the last status comes later; the agent waits for it. Also called when the
    // agent closed an idle connection, because there are too few descriptors for all hosts.
    virtual void closed(std::size_t /*host*/, std::size_t /*waiting*/, bool /*held*/) {}
    // The scheduler requires a login and there is no password yet. Answer with ask_password() or refuse_password(), at
    // once or later.
    virtual void password_needed(std::size_t host) = 0;

protected:
    ~agent_listener() = default;
};

class agent_client {
public:
    using clock = std::chrono::steady_clock;

    // Starts the agent. Call before there are threads, and before anything is written to stdio's buffers. Throws
    // std::system_error. Events come in step(); events must outlive this. Raises the limit for descriptors.
    agent_client(std::vector<host_name> hosts, const agent_options& how, agent_listener& events);

    // One more host, with the next number.
    void add(const host_name& host) {
        hosts_.push_back(host);
        closed_.push_back(false);
        channel_.send(to_agent::add, host);
    }

    const host_name& host(std::size_t number) const { return hosts_[number]; }

    // Queues a command, over the connection that is open or a new one; commands of one host run one after the other.
    // words: not empty, accepted by join_words. Returns the number of the request for the events, which is not 0.
    std::uint32_t ask(std::size_t host, const std::vector<std::string>& words) {
        channel_.send(to_agent::ask, host, ++last_request_, words);
        return last_request_;
    }

    // Hands the messages in the mailbox to the listener as the answer of this request, without a connection.
    // Then calls ended() with `end`, which is not outcome::no_answer. Returns the number of the request.
    std::uint32_t fetch_stored(std::size_t host, const command_result& end) {
        channel_.send(to_agent::fetch_stored, host, ++last_request_, end);
        return last_request_;
    }

    // The operator no longer waits for this command. If it has not been sent, it is dropped, and ended() comes with
    // outcome::interrupted. If it was sent, the messages in its answer wait for the next `status`.
    void cancel(std::size_t host, std::uint32_t request) { channel_.send(to_agent::cancel, host, request); }

    // Drops commands that have not been sent, without ended(); then, behind the one under way, `status` and `quit` in
    // one packet. closed() follows. The next ask() makes a new connection.
    void close(std::size_t host) {
        closed_[host] = false;
        channel_.send(to_agent::close, host);
    }

    // These messages were written to the operator's output, so they leave the mailbox.
    void shown(const std::vector<std::uint64_t>& ids) { channel_.send(to_agent::settle, ids, true); }

    // The operator no longer waits for the answer with these messages. The next `status` brings them.
    void put_back(const std::vector<std::uint64_t>& ids) { channel_.send(to_agent::settle, ids, false); }

    // Answers to password_needed. The first asks at the terminal and hands the password on. It returns the reason when
    // there is none; the login is then refused.
    std::optional<std::string> ask_password(std::size_t host);
    void refuse_password(std::size_t host) { password(host, "", false); }

    // True when the only host is known to require a login and somebody can type the password: ask for it before ask(),
    // because the connection would take messages and then be refused.
    bool needs_password() const;

    // For a caller with its own loop: poll this descriptor, then call step() with the present time.
    int fd() const { return channel_.fd(); }

    // Waits for an event of the hosts or on the descriptors of `others` (whose revents are set), or until that time.
    // Throws std::runtime_error when the agent has ended.
    void step(std::span<pollfd> others, clock::time_point until);

    // The last call. Closes all connections and waits until each is closed or held, and until what was not shown is
    // left to other processes; at most close_timeout, less when one of `others` is readable. Events are still handed to
    // the listener. The agent finishes what is left.
    void finish(std::span<pollfd> others = {});

private:
    void password(std::size_t host, const std::string& text, bool is_given) {
        channel_.send(to_agent::password, host, text, is_given);
    }
    void handle(const nlohmann::json& frame);

    std::vector<host_name> hosts_;
    agent_listener& listener_;
    bool has_password_;
    channel channel_;
    std::uint32_t last_request_ = 0;
    std::vector<bool> closed_;  // each host, or held, since its last close()
    bool is_ended_ = false;     // the agent gets no more calls
    bool left_ = false;
};
