// The agent: it drives the connections to one host or many, in one thread with epoll, and owns the mailbox. Its front
// is an agent_client, which says what the calls and events mean.
#pragma once

#include "agent/channel.h"
#include "mail/mailbox.h"
#include "net/host_link.h"
#include "protocol/login.h"

#include <deque>
#include <set>

// What becomes of the messages that earlier processes have left in the mailbox.
enum class stored_messages {
    left,       // they stay where they are (module commands, `show`)
    looked_at,  // they are part of the answer of `status`, and stay (`check`, `metrics`)
    // They come first in the answer of the first `status` of each connection, even when the scheduler gives no answer.
    // shown() removes them.
    taken,
};

struct agent_options {
    connect_options connect;
    // Commands under way at once. Late commands do not count, and neither do questions older than place_time.
    std::size_t parallel = 64;
    // False: a person waits for the answer, so messages that cannot be stored are handed to the listener without a
    // number. True: nothing is asked without room for the answer; the command ends with outcome::no_room.
    bool must_store = false;
    stored_messages stored = stored_messages::left;
    mail_kind kind = mail_kind::operators;
};

class agent {
public:
    using clock = host_link::clock;

    agent(const std::vector<host_name>& hosts, agent_options how, channel front);

    // Carries out the front's calls until it ends. Then leaves messages that were not shown to other processes, closes
    // all connections and stores what they bring, however long that takes.
    void run();

private:
    struct command {
        std::uint32_t request;
        std::vector<std::string> words;                     // empty: the last `status`, which ends the connection
        bool given_up = false;                              // cancel() was called after it was sent
        std::optional<clock::time_point> waits_until = {};  // for an older connection
    };

    struct host_state {
        host_state(const host_name& where, const connect_options& how, password_store& passwords,
                   std::chrono::seconds silence)
            : key(key_of(where)), link(where, how, passwords, silence) {}

        bool is(const char* word) const { return current && !is_final() && current->words[0] == word; }
        bool is_final() const { return current && current->words.empty(); }

        std::string key;
        host_link link;
        std::optional<command> current;  // under way
        std::deque<command> queue;       // behind it
        bool is_ready = false;           // in ready_
        bool closing = false;            // close() was called; the last status is not stored yet
        // When the connection was made for which the mailbox has been read.
        std::optional<clock::time_point> looked;
        std::string status_text;  // as far as it has come
        clock::time_point asked_at{};
        clock::time_point look_at{};     // when to look again for an older connection that another process holds
        std::optional<state_file> held;  // not open when another process holds a connection
    };

    // The calls of the front, in the order of `to_agent`. settle(): 0 is the number of a line that is not in the
    // mailbox, and is ignored. password(): is_given: false when the operator has none; text is then the reason, or empty
    // when he cannot be asked.
    void add(const host_name& host);
    void ask(std::size_t host, std::uint32_t request, std::vector<std::string> words);
    void cancel(std::size_t host, std::uint32_t request);
    void close(std::size_t host);
    void settle(const std::vector<std::uint64_t>& ids, bool were_shown);
    void fetch_stored(std::size_t host, std::uint32_t request, const command_result& end);
    void password(std::size_t host, const std::string& text, bool is_given);

    void step(std::span<pollfd> others);
    void schedule(std::size_t host);
    clock::time_point start_ready();
    bool waits_for_room();
    bool takes_place(const host_state& state, clock::time_point now) const;
    void start(std::size_t host, std::size_t answers);
    bool waits_for_older(host_state& state);
    void begin(std::size_t host, command next);
    void watch(std::size_t host);
    void handle_ready();
    void expire_late();
    void update(std::size_t host);
    void on_ended(std::size_t host, command_result end);
    void on_late(std::size_t host);
    void remember_login(const host_state& state);
    // In agent/closing.cpp:
    void on_closed(std::size_t host);
    void finish();
    static void hold(host_state& state);
    // In agent/answers.cpp:
    // Stores the messages of an answer of `status` and hands the answer to the front. Once for each
    // connection, the messages in the mailbox come before it. request: 0 for the last `status` and for the
    // one before `restart`. text: the answer, as far as it has come. Returns false when the answer is not
    // complete, or is no status.
    bool deliver(std::size_t host, std::uint32_t request, std::string_view text, bool complete);
    void add_stored(std::size_t host, status_answer& answer);
    void store_messages(std::size_t host, status_answer& answer);

    const agent_options how_;
    channel front_;
    const std::size_t parallel_;
    const std::size_t most_open_;  // connections at the same time; the limit for descriptors allows no more
    const std::chrono::seconds module_silence_;
    password_store passwords_;
    mailbox mailbox_;
    bool is_finishing_ = false;  // nobody can be asked for a password, and nobody gets output
    std::deque<host_state> hosts_;
    std::deque<std::size_t> ready_;                                // hosts whose next command waits for its start
    std::set<std::size_t> active_;                                 // hosts whose link is not closed
    descriptor events_;                                            // of epoll: the descriptors of all links
    clock::time_point first_deadline_ = clock::time_point::max();  // no link has an earlier one
};
