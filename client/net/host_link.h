// The connection to one host and the command that runs there. No function here waits.
//
//     closed --ask--> resolving --> connecting --> hello --> command --> idle --ask--> command
//     hello, command --login required--> password --> login --> hello or command
//     any state --failure, drop--> closed
//
// A hello is sent only with a name (-u). A password that is known is not asked for. Some commands need other requests
// first: see net/exchange.cpp.
//
// A command that is not answered within its limit is reported once by expire(); it stays under way, because its answer
// may bring messages.
#pragma once

#include "net/host_list.h"
#include "net/name_lookup.h"
#include "protocol/answer.h"
#include "term/descriptor.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

class password_store;

// How all connections of a process are made.
struct connect_options {
    std::string source;         // local IPv4 address to connect from; empty: the system chooses
    unsigned timeout = 0;       // seconds, of -t; 0: the limits of limits.h
    std::string user;           // sent with "hello" on each new connection; empty: not sent
    std::string password_file;  // empty: the listener is asked for the password, with one host only
};

class host_link {
public:
    using clock = std::chrono::steady_clock;

    // how and passwords must outlive the link. module_silence: seconds that a module may be silent when there is no -t;
    // 0: no limit.
    host_link(host_name where, const connect_options& how, password_store& passwords,
              std::chrono::seconds module_silence)
        : where_(std::move(where)), how_(how), passwords_(passwords), module_silence_(module_silence) {}

    const host_name& host() const { return where_; }
    bool is_open() const { return state_ >= state::idle; }
    // The connection is being made. The scheduler may have accepted it already, and given it what waits.
    bool is_connecting() const { return state_ == state::connecting; }
    // A command is under way.
    bool is_busy() const { return state_ != state::closed && state_ != state::idle; }
    bool is_late() const { return late_; }
    bool needs_password() const { return state_ == state::password; }
    bool needed_login() const { return needed_login_; }  // of the connection, or of the last one
    // The address of the connection, or of the last one, as text; empty before the first.
    std::string address() const;
    // When connecting began, and when it had succeeded; on a closed link, the times of its last connection. The
    // scheduler accepts the connection at any time after the first, but in the order in which connections were made.
    clock::time_point connecting_at() const { return connecting_at_; }
    clock::time_point connected_at() const { return connected_at_; }

    // Begins a command, over the connection that is open or a new one. None may be under way. Empty words: the last
    // request of the connection; while connecting it takes the place of the command, which has not been sent.
    void ask(std::vector<std::string> words);

    // Gives the addresses of the host. When there are none, problem has the reason.
    void on_resolved(std::vector<in_addr> addresses, const std::string& problem);

    // The store has the password now, or (no_password is not empty) there is none.
    void log_in(const std::string& no_password);

    // The descriptor to poll: first that of the look-up, then that of the connection; -1 for none. events():
    // what to poll it for.
    int fd() const { return lookup_ ? lookup_->ended.get() : socket_.get(); }
    short events() const;
    void on_ready();

    clock::time_point deadline() const { return deadline_; }
    void expire();

    // What has happened since the last call: output, and the end of the command. outcome::no_answer: the
    // command is late, and still under way. If no command was under way, the scheduler has closed the
    // connection.
    struct news {
        std::string text;
        std::optional<command_result> end;
    };
    news take_news() { return std::exchange(news_, {}); }

    // Closes the connection and gives up its command, which then has no end to report.
    void drop();

private:
    // From idle on there is a connection; in the states after idle a command is under way. status: the request `status`
    // before the command. probe: asks whether the scheduler knows ipset.
    enum class state { closed, resolving, connecting, idle, hello, password, login, status, probe, command };

    void connect_next(int problem = 0);
    void on_connected();
    void on_received(std::string_view bytes);
    void send_requests();
    void set_deadline();
    void finish(command_result end);
    void fail(command_result end);
    std::chrono::seconds limit() const;

    // In net/exchange.cpp:
    void begin();
    void begin_command();
    void say(state next);
    void on_answer(const command_result& end);
    void on_ipset(const command_result& end);
    void on_challenge(const command_result& challenge);
    void on_login(const command_result& end);
    command_result reason_for_closing() const;
    bool may_take_long() const;
    bool is_final() const { return words_.empty(); }
    bool is(std::string_view word) const { return !words_.empty() && words_[0] == word; }
    bool sets_address() const { return is("ipset") && words_.size() > 1; }

    const host_name where_;
    const connect_options& how_;
    password_store& passwords_;
    const std::chrono::seconds module_silence_;
    state state_ = state::closed;
    descriptor socket_;
    std::shared_ptr<name_lookup> lookup_;  // may outlast its command; then there is no socket
    std::vector<in_addr> addresses_;       // kept for later connections
    std::size_t next_address_ = 0;         // index of the address to try next
    std::vector<std::string> words_;       // of the running or the last command; empty: the last request
    bool greets_ = false;                  // a hello comes before the command
    bool logged_in_ = false;               // since ask()
    command_result challenge_;             // the nonce and the salt for the login
    std::string requests_;                 // not sent yet
    std::string input_;                    // not parsed yet
    answer_parser parser_;
    std::optional<command_result> failed_ipset_;  // its end, while the answer to the empty line is to come
    std::size_t received_ = 0;                    // bytes since the last request
    bool received_any_ = false;                   // over this connection
    bool needed_login_ = false;                   // the same
    bool took_long_ = false;                      // the last deadline was that of a module
    bool late_ = false;
    clock::time_point connecting_at_{};
    clock::time_point connected_at_{};
    clock::time_point deadline_ = clock::time_point::max();
    news news_;
};
