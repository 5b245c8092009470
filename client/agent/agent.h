// The agent of one process. It drives the connections to one host or many, in one thread with epoll, and owns the
// mailbox. Every message that a scheduler hands over is in the mailbox before anybody sees it, and every connection
// ends with a last `status`.
#pragma once

#include "mail/held_connection.h"
#include "mail/mailbox.h"
#include "net/host_link.h"
#include "protocol/login.h"
#include "term/descriptor.h"

#include <deque>
#include <functional>
#include <optional>
#include <poll.h>
#include <set>
#include <span>

namespace client {

// What becomes of the messages that earlier processes have left in the mailbox.
enum class stored_messages {
    left,       // they stay where they are (module commands, `show`)
    looked_at,  // they are part of the answer of `status`, and stay (`check`, `metrics`)
    // They come first in the answer of the first `status` of each connection, even when the scheduler gives no answer.
    // settle() removes them once they were shown.
    taken,
};

struct agent_options {
    connect_options connect;
    // Commands under way at once. A late one does not count, nor a question that is older than place_time.
    std::size_t parallel = 64;
    // False: a person waits for the answer, so messages that cannot be stored are handed to the listener without a
    // number. True: nothing is asked without room for the answer; the command ends with outcome::no_room.
    bool must_store = false;
    stored_messages stored = stored_messages::left;
    mail_kind kind = mail_kind::operators;
};

// The answer of `status`, as the agent hands it on.
struct status_answer {
    std::uint32_t request = 0;  // that this answers; 0: a last `status`, or one before `restart` or `quit`
    std::vector<status_line> lines;  // the messages that were stored before come first, then the answer
    bool complete = false;           // false: there is no answer, it broke off, or it is no status
    double seconds = 0;              // that the scheduler took for it
    message_totals totals;           // of this scheduler, as the mailbox has counted them
    std::string unstored;            // why the new messages could not be stored; empty when they are
    std::string notice;              // for the operator, such as who holds messages; lines end with LF
};

// Gets the events of the hosts. host: the number in the list. Each function may call any function of the
// agent except step() and finish().
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
    // The scheduler requires a login and there is no password yet. Answer with password(), at once or later.
    virtual void password_needed(std::size_t host) = 0;

protected:
    ~agent_listener() = default;
};

class agent {
public:
    using clock = host_link::clock;

    // hosts: may grow with add(). Raises the limit for descriptors as needed. events must outlive the agent.
    agent(const std::vector<host_name>& hosts, agent_options how, agent_listener& events);

    std::size_t add(const host_name& host);
    const host_name& host(std::size_t number) const { return hosts_[number].link.host(); }

    // Queues a command, over the connection that is open or a new one; commands of one host run one after the other.
    // words: not empty, accepted by join_words. request: its number for the events; not 0, not used before.
    void ask(std::size_t host, std::uint32_t request, std::vector<std::string> words);

    // The operator no longer waits for this command. If it has not been sent, it is dropped, and ended() comes with
    // outcome::interrupted. If it was sent, the messages in its answer wait for the next `status`.
    void cancel(std::size_t host, std::uint32_t request);

    // Drops commands that have not been sent, without ended(); then, behind the one under way, `status` and `quit` in
    // one packet. closed() follows. The next ask() makes a new connection.
    void close(std::size_t host);

    // were_shown: true when these messages were written to the operator's output; they then leave the
    // mailbox. False when the operator no longer waits for their answer; the next `status` then brings them.
    void settle(const std::vector<std::uint64_t>& ids, bool were_shown);

    // Hands the messages in the mailbox to the listener as the answer of this request, without a connection.
    // Then calls ended() with `how`, which is not outcome::no_answer.
    void fetch_stored(std::size_t host, std::uint32_t request, outcome how);

    // The operator's answer to password_needed. is_given: false when he has none; the login is then refused.
    void password(std::size_t host, const std::string& text, bool is_given);

    // Waits for an event of the hosts or on the descriptors of `others` (whose revents are set), or until that time.
    void step(std::span<pollfd> others, clock::time_point until);

    // For the end of the process: leaves what nobody was shown to others, closes all connections and stores what comes,
    // however long that takes. on_left: called once others can take them.
    void finish(const std::function<void()>& on_left = nullptr);

private:
    struct command {
        std::uint32_t request;
        std::vector<std::string> words;
    };

    struct host_state {
        host_state(const host_name& where, const connect_options& how, password_store& passwords,
                   std::chrono::seconds silence)
            : key(key_of(where)), link(where, how, passwords, silence) {}

        std::string key;
        host_link link;
        // The command under way is a `status`, and not the last one.
        bool asks_status() const { return asking && !final_asked && queue.front().words[0] == "status"; }
        // The output belongs to a `status`: to the command itself, to the last one, or to the one before
        // these words.
        bool receives_status() const {
            return asks_status() || final_asked ||
                   (asking && (queue.front().words[0] == "restart" || queue.front().words[0] == "quit"));
        }

        std::deque<command> queue;  // the first is under way when `asking`
        bool is_ready = false;      // in ready_
        bool asking = false;
        bool given_up = false;     // cancel() was called for the command under way
        bool closing = false;      // close() was called; the last status is not stored yet
        bool final_asked = false;  // the last status is under way
        // When the connection was made for which the mailbox has been read.
        std::optional<clock::time_point> looked;
        std::string status_text;  // as far as it has come
        clock::time_point asked_at{};
        clock::time_point wait_until{};  // for an older connection that another process holds
        clock::time_point look_at{};     // for it again, not earlier
        std::optional<held_connection> held;
    };

    void schedule(std::size_t host);
    clock::time_point start_ready();
    bool waits_for_room();
    bool takes_place(const host_state& state, clock::time_point now) const;
    bool start(std::size_t host, std::size_t answers);
    bool waits_for_older(host_state& state);
    void begin(std::size_t host, std::vector<std::string> words);
    void watch(std::size_t host);
    void handle_ready();
    void expire_late();
    void update(std::size_t host);
    void on_ended(std::size_t host, command_result end);
    void on_late(std::size_t host);
    void remember_login(const host_state& state);
    // In agent/closing.cpp:
    void ask_final(std::size_t host);
    void on_closed(std::size_t host);
    static void hold(host_state& state);
    // In agent/answers.cpp:
    // Stores the messages of an answer of `status` and hands the answer to the listener. Once for each
    // connection, the messages in the mailbox come before it. request: 0 for the last `status` and for the
    // one before `restart`. text: the answer, as far as it has come. Returns false when the answer is not
    // complete, or is no status.
    bool deliver(std::size_t host, std::uint32_t request, std::string_view text, bool complete);
    void add_stored(std::size_t host, status_answer& answer);
    void store_messages(std::size_t host, status_answer& answer);

    const agent_options how_;
    agent_listener& listener_;
    const std::size_t parallel_;
    const std::size_t most_open_;  // connections at the same time; the limit for descriptors allows no more
    const std::chrono::seconds module_silence_;
    password_store passwords_;
    mailbox mailbox_;
    bool is_finishing_ = false;  // nobody can be asked for a password
    std::deque<host_state> hosts_;
    std::deque<std::size_t> ready_;  // hosts whose next command waits for its start
    std::set<std::size_t> active_;   // hosts whose link is not closed
    descriptor events_;              // of epoll: the descriptors of all links
    clock::time_point first_deadline_ = clock::time_point::max();  // no link has an earlier one
};

// Waits for an event of the descriptor or of `others`, whose revents are set, or until that time. A signal ends the
// wait, too. Returns true when the descriptor has an event.
bool wait_for(int fd, short events, std::span<pollfd> others, agent::clock::time_point until);

// For a process that is left with an agent: neither the terminal nor a monitoring engine that kills the process group
// of its check may end it before it has stored the messages. Nobody may wait for the end of its output.
void detach();

}  // namespace client
