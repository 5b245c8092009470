// Parses the answer to one command: where it ends in the bytes of the scheduler, and how the command ended.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace client {

// How a command ended. The first six are terminating lines of the scheduler; the client detects the others itself.
enum class ending {
    over,           // finished: code and signal are set
    timeout,        // the module overran its time-out and was killed
    busy,           // switched off, or locked
    unsupported,    // no such command
    unauth,         // login required: nonce and salt are set
    goodbye,        // the scheduler closes the connection
    closed,         // no connection, or it was closed before the answer was complete; reason is set
    unsent,         // connected, but the request could not be sent; reason is set
    invalid,        // words that cannot be sent as a request, so nothing was sent; reason is set
    silent,         // no byte came within the time-out
    interrupted,    // the operator stopped waiting
    login_refused,  // no password, or a wrong one
    count_          // number of endings
};

struct answer_end {
    answer_end(ending how_ended = ending::closed, std::string why = "")
        : how(how_ended), reason(std::move(why)) {}

    ending how;
    int code = 0;    // exit code of the module, 0 to 255
    int signal = 0;  // signal that ended the module, 0 when it ended by itself
    std::string nonce;
    std::string salt;
    std::string reason;
};

// Exit codes of schedctl itself. A module's exit code is used unchanged, and a signal is 128 + its number (129 to
// 192). So these begin at 200, which modules and shells rarely use.
enum exit_code : int {
    exit_usage = 200,
    exit_busy = 201,
    exit_unsupported = 202,
    exit_module_timeout = 203,
    exit_login = 204,
    exit_connection = 205,
    exit_silence = 206,
};

int exit_code_of(const answer_end& end);

// Returns the likely reason why the scheduler has closed a connection. served: bytes had come over it before.
const char* why_closed(bool served);

// Why the scheduler is busy for a command that begins with this word.
const char* why_busy(std::string_view word);

// Returns one line for the operator; empty for a command that succeeded.
std::string describe(const answer_end& end);

// Reads one answer. A module's output is a raw stream and may contain terminating words. So such a word counts only as
// a whole line, and a word that refuses a command only as the first line: a refused command has no output.
class answer_parser {
public:
    // quitting: the command was `quit`, whose answer ends with "Good-bye.".
    explicit answer_parser(bool quitting = false) : quitting_(quitting) {}

    // Appends the output found in bytes to text, with CR LF as LF. Returns how many bytes were used: all of them, or
    // those up to the end of the answer. Only two things are held back: the start of a line that may become a
    // terminating line, and a CR whose LF may follow.
    std::size_t feed(std::string_view bytes, std::string& text);

    bool done() const { return done_; }
    const answer_end& end() const { return end_; }

private:
    bool expected(ending how) const;
    bool may_end() const;
    bool is_end();
    void release(std::string& text);
    void put(std::string_view part, std::string& text);

    bool quitting_;
    bool done_ = false;
    bool holding_ = true;     // at the start of a line that may end the answer
    bool first_line_ = true;  // no output seen yet
    bool cr_ = false;         // a CR was held back
    std::string held_;
    answer_end end_;
};

}  // namespace client
