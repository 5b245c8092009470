// Runs commands on the hosts, one after the other, and writes their answers: the common part of a single command and
// of both kinds of session. A message leaves the mailbox when its line has been written.
#pragma once

#include "agent/agent_client.h"
#include "options/options.h"
#include "run/host_output.h"
#include "run/json.h"
#include "term/signals.h"
#include "term/text.h"

class command_runner : private agent_listener {
public:
    // When the settings have a command, only that is run, and each connection is closed after it. Without
    // one, for a session. suspend: see signal_watch; set for a session at a terminal.
    explicit command_runner(const settings& chosen, std::function<void()> suspend = nullptr);

    // Runs a command on all hosts. Returns its exit code, when its output is written or the operator has given it up.
    // Throws std::system_error when the output cannot be written.
    int run(const std::vector<std::string>& words);

    // Shows the messages in the mailbox of the first host.
    void show_stored();

    // How the last command has ended on the first host.
    const command_result& last() const { return states_[0].end; }

    // For a caller that waits for something else: the descriptor to poll, and the function to call when it is readable.
    // Returns what has happened, as a line for the operator; mostly empty.
    int fd() const { return agent_.fd(); }
    std::string absorb();

    signal_watch& signals() { return signals_; }

    // Closes the connections, and tells the operator at a terminal how many messages wait. Returns the code.
    int finish(int code);

private:
    using clock = agent_client::clock;

    struct host_state {
        std::uint32_t request = 0;  // under way; 0 for none
        command_result end;
        std::string kept;                // the answer, for JSON and for the list of modules
        std::vector<status_line> lines;  // of an answer of `status`, for JSON
        printable_text filter;
        std::size_t waiting = 0;  // messages that nobody was shown, when the connection was closed
    };
    void wait();
    void interrupt();
    void start(std::size_t host);
    void output(std::size_t host, std::uint32_t request, const std::string& text) override;
    void status(std::size_t host, const status_answer& answer) override;
    void print_unstored(std::size_t host, const std::vector<status_line>& lines) const;
    void ended(std::size_t host, std::uint32_t request, const command_result& end) override;
    void closed(std::size_t host, std::size_t waiting, bool) override { states_[host].waiting = waiting; }
    void password_needed(std::size_t host) override;
    void give_up(std::size_t host, outcome how);
    void finish_host(std::size_t host, const command_result& end);
    void written(std::size_t host, const std::vector<std::uint64_t>& shown, std::size_t ends);
    void report_end(std::size_t host) const;
    void print_at_terminal(const std::string& note) const;

    const settings& chosen_;
    const bool once_;            // a single command
    const bool at_terminal_;     // a session at a terminal
    const bool terminal_;        // standard output
    const json_writer convert_;  // the form of the answers; empty: as they come
    const bool shows_messages_;
    agent_client agent_;
    signal_watch signals_;
    std::vector<host_state> states_;
    host_output output_;
    std::vector<std::string> words_;  // of the last command
    std::size_t running_ = 0;         // hosts whose output is not written
    int exit_code_ = 0;               // the largest of the hosts
    std::size_t given_up_ = 0;        // commands that the operator no longer waits for, and that have not ended
    std::string note_;                // what has happened besides the commands
};

// Runs one command. Returns its exit code; with several hosts, the largest of theirs. Throws std::runtime_error when
// the options do not fit the command.
int run_command(const settings& chosen);
