// One host of many: its connection and the command that runs there. No function here waits.
#pragma once

#include "dialogue.h"
#include "host_list.h"
#include "name_lookup.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

struct settings;

enum class farewell { asked, later, impossible };  // impossible without a connection

class host_link {
public:
    using clock = std::chrono::steady_clock;

    // All arguments must outlive the link. password may be null; a login then fails.
    host_link(const host_name& where, const settings& chosen, password_source* password)
        : where_(where), settings_(chosen), password_(password) {}
    ~host_link() { close(); }
    host_link(const host_link&) = delete;
    host_link& operator=(const host_link&) = delete;

    // Begins a command, over the connection that is open or a new one. No other may be under way, nor be silent.
    // more: sent behind it when the connection is open.
    void ask(const std::vector<std::string>& words, std::string_view more = "");

    const std::string& name() const { return where_.name; }  // the name to look up

    // True when the command needs the addresses of the host, which must be looked up.
    bool wants_addresses() const { return state_ == state::resolving; }
    void take(lookup_result found);  // the result of the look-up; ignored when the command was given up

    // The descriptor to poll, -1 for none, and the events to poll for.
    int fd() const { return fd_; }
    short events() const;
    void ready(std::string& output);  // appends the output of the command

    // Fetches the status and quits in one request, so that hardly any message can be queued in between for a
    // connection that will not ask again. A command that is under way ends first; then call this again.
    farewell take_leave();

    // The time at which to give up the command, and the function that does so. Messages are handed over once, so
    // silence is told but the connection is kept: the answer may still come, and then the command ends once more.
    clock::time_point deadline() const { return deadline_; }
    void expire();

    // For time in which the caller could not serve this host.
    void extend_deadline(clock::duration by) {
        if (deadline_ != clock::time_point::max()) {
            deadline_ += by;
        }
    }

    // Returns how the command ended, once. Also reports that the scheduler has closed a connection without a command.
    std::optional<answer_end> take_end();

    // Closes the connection and drops a running command, which then has no end to report.
    void close();

private:
    enum class state { closed, resolving, connecting, talking, idle };

    void connect_next();
    void connected();
    void send_requests();
    void receive(std::string& output);
    void set_deadline();
    void give_up(answer_end end);
    void close_descriptor();

    const host_name& where_;
    const settings& settings_;
    password_source* password_;
    state state_ = state::closed;
    int fd_ = -1;
    std::vector<in_addr> addresses_;  // kept for later connections
    std::size_t next_address_ = 0;    // index of the address to try next
    std::optional<dialogue> talk_;    // of the running or the last command
    std::string requests_;            // not sent yet
    bool served_ = false;             // bytes have come over this connection
    bool daemon_answers_ = false;     // the scheduler answers the command itself, without a module
    clock::time_point deadline_ = clock::time_point::max();
    std::optional<answer_end> end_;
};

}  // namespace client
