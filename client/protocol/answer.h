// Parses the answer to one command: where it ends in the bytes of the scheduler, and how the command ended.
#pragma once

#include "term/exit_code.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

// How a command ended. The first six are terminating lines of the scheduler; the client detects the others itself.
enum class outcome {
    over,            // finished: code and signal are set
    module_timeout,  // the module overran its time-out and was killed
    busy,            // switched off, or locked
    unsupported,     // no such command
    unauth,          // login required: nonce and salt are set
    goodbye,         // the scheduler closes the connection
    closed,          // no connection, or it was closed before the answer was complete; reason is set
    unsent,          // connected, but the request could not be sent; reason is set
    invalid,         // words that cannot be sent as a request, so nothing was sent; reason is set
    bad_answer,      // the bytes that came are no answer to the command; reason is set
    no_answer,       // no answer came within the time-out
    interrupted,     // the operator stopped waiting
    login_refused,   // no password, or a wrong one
    no_room,         // messages could not be stored, so nothing was sent; reason is set
    count_           // number of outcomes
};

struct command_result {
    command_result(outcome how_ended = outcome::closed, std::string why = "")
        : how(how_ended), reason(std::move(why)) {}

    outcome how;
    int code = 0;    // exit code of the module, 0 to 255
    int signal = 0;  // signal that ended the module, 0 when it ended by itself
    std::string nonce;
    std::string salt;
    std::string reason;
};

int exit_code_of(const command_result& end);

// Returns one line for the operator; empty for a command that succeeded.
std::string describe(const command_result& end);

// Reads one answer. A module's output is a raw stream and may contain terminating words. So such a word counts only as
// a whole line, and a word that refuses a command only as the first line: a refused command has no output.
class answer_parser {
public:
    // quitting: the command was `quit`, whose answer ends with "Good-bye.".
    explicit answer_parser(bool quitting = false) : quitting_(quitting) {}

    // Takes bytes from the front of input and appends the output among them to text, with CR LF as LF. Returns the end
    // of the answer when it is there; the bytes behind it stay. Otherwise only two things stay, until more bytes are
    // added: the start of a line that may become a terminating line, and a CR whose LF may follow.
    std::optional<command_result> feed(std::string& input, std::string& text);

private:
    bool expected(outcome how) const;
    bool may_end(std::string_view start) const;
    std::optional<command_result> end_of(std::string_view line) const;

    bool quitting_;
    bool at_line_start_ = true;  // the next bytes may end the answer
    bool first_line_ = true;     // no output seen yet
};
