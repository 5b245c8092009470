// Commands and their answers over one connection, with the login, and with the commands that have no answer on
// success.
#pragma once

#include "answer.h"
#include "connection.h"
#include "login.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

struct settings;

// What to do when the scheduler is silent for too long. Messages are handed over once, so some wait for the answer
// that is still to come: at once, or later with resume().
enum class on_silence { leave, wait, resume };

class conversation {
public:
    // Gets the output in parts, as it comes; line ends are LF.
    using sink = std::function<void(std::string_view)>;

    // signals may be null; the others must outlive the conversation.
    conversation(const settings& chosen, signal_watch* signals, on_silence habit = on_silence::leave);

    // Runs one command. Connects when there is no connection. When the scheduler requires a login, logs in and sends
    // the command again.
    answer_end run(const std::vector<std::string>& words, const sink& output);

    // Waits on for the answer that the last run has given up, and passes on what has not yet come of it. Call only
    // while late() is true.
    answer_end resume(const sink& output);

    // The connection's descriptor, -1 without one. Poll it while no command runs and call absorb when it is readable.
    int fd() const { return link_.fd(); }

    // True while an answer is outstanding that a run has given up.
    bool late() const { return late_.has_value(); }

    // Sends `status` and `quit` together. Between two separate requests the scheduler could queue a message that this
    // connection would never fetch. Call only while late() is false; does nothing without a connection.
    answer_end take_leave(const sink& output);

    // Reads and drops bytes that came while no command runs. Returns one line for the operator when the late answer is
    // complete or the connection is closed, else an empty text.
    std::string absorb();

private:
    bool connect(answer_end& problem);
    bool greet(answer_end& problem);
    answer_end ask(const std::vector<std::string>& words, const sink& output);
    bool log_in(const answer_end& challenge, answer_end& problem);
    bool send(std::string_view line, answer_end& problem);
    void limit_wait(std::string_view word);
    answer_end exchange(const std::vector<std::string>& words, const sink& output);
    answer_end exchange_ipset(const std::string& line, const sink& output);
    answer_end exchange_restart(const std::string& line, const sink& output);
    answer_end exchange_line(std::string_view line, const sink& output);
    answer_end receive(answer_parser& parser, const sink& output);
    answer_end lost();

    const settings& settings_;
    on_silence habit_;
    connection link_;
    password_source password_;
    std::optional<answer_parser> late_;
    std::string unread_;   // bytes that came after the end of an answer
    bool served_ = false;  // the scheduler has sent something on this connection
};

}  // namespace client
