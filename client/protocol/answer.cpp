#include "protocol/answer.h"

#include <csignal>
#include <cstdio>
#include <iterator>

namespace client {

namespace {

// The forms of a terminating line. In a form with fields, the line goes on after the word, up to `longest` bytes.
struct terminator {
    std::string_view word;
    outcome how;
    std::size_t longest;  // 0: the word is the whole line
};

constexpr terminator terminators[] = {
    {"__over__ ", outcome::over, 20},      {"__timeout__\r\n", outcome::module_timeout, 0},
    {"__busy__\r\n", outcome::busy, 0},    {"__unsupported__\r\n", outcome::unsupported, 0},
    {"__unauth__ ", outcome::unauth, 256}, {"Good-bye.\r\n", outcome::goodbye, 0},
};

// Exit code and text for the operator, in the order of `outcome`.
struct meaning {
    int code;
    const char* text;
};

constexpr meaning meanings[] = {
    {0, ""},
    {exit_module_timeout, "timed out: the module was killed"},
    {exit_busy, "busy"},
    {exit_unsupported, "unsupported: the scheduler does not know this command"},
    {exit_login, "login required"},
    {0, ""},
    {exit_connection, "no connection"},
    {exit_connection, "the request was not sent"},
    {exit_usage, "cannot be sent"},
    {exit_connection, "unusable answer"},
    {exit_silence, "no answer in time"},
    {128 + SIGINT, "stopped waiting"},
    {exit_login, "login refused"},
    {exit_usage, "messages could not be stored"},
};
static_assert(std::size(meanings) == static_cast<std::size_t>(outcome::count_),
              "one meaning for each outcome");

// Reads the fields after the word. Returns true only when formatting these fields gives exactly this line.
bool read_fields(const std::string& line, command_result& end) {
    if (end.how == outcome::over) {
        int status = 0;
        if (std::sscanf(line.c_str(), "__over__ %3d %3d", &end.code, &status) != 2) {
            return false;
        }
        end.signal = status & 0x7f;  // without the bit for a core dump
        return line == "__over__ " + std::to_string(end.code) + " " + std::to_string(status) + "\r\n";
    }
    char nonce[128];
    char salt[128];
    if (std::sscanf(line.c_str(), "__unauth__ %127s %127s", nonce, salt) != 2) {
        return false;
    }
    end.nonce = nonce;
    end.salt = salt;
    return line == "__unauth__ " + end.nonce + " " + end.salt + "\r\n";
}

}  // namespace

int exit_code_of(const command_result& end) {
    if (end.how == outcome::over) {
        // As a shell reports a signal.
        return end.signal != 0 ? 128 + end.signal : end.code;
    }
    return meanings[static_cast<std::size_t>(end.how)].code;
}

const char* why_closed(bool served) {
    return served
               ? "the scheduler closed it"
               : "the scheduler closed it at once: its table of connections may be full, or this address is "
                 "not allowed";
}

const char* why_busy(std::string_view word) {
    return word == "unlock" ? "this connection does not hold the lock" : "switched off or locked";
}

std::string describe(const command_result& end) {
    if (end.how == outcome::over && end.signal != 0) {
        return "ended by signal " + std::to_string(end.signal);
    }
    if (end.how == outcome::over) {
        return end.code != 0 ? "exit code " + std::to_string(end.code) : "";
    }
    const std::string text = meanings[static_cast<std::size_t>(end.how)].text;
    return end.reason.empty() ? text : text + ": " + end.reason;
}

std::size_t answer_parser::feed(std::string_view bytes, std::string& text) {
    std::size_t used = 0;
    while (used < bytes.size() && !done_) {
        // Byte by byte only while the line may still be a terminating one; the rest of a line is taken whole.
        if (holding_) {
            held_ += bytes[used++];
            if (held_.back() == '\n' && is_end()) {
                done_ = true;
            } else if (!may_end()) {
                release(text);
            }
            continue;
        }
        const std::size_t line_feed = bytes.find('\n', used);
        const std::size_t stop = line_feed == std::string_view::npos ? bytes.size() : line_feed + 1;
        put(bytes.substr(used, stop - used), text);
        used = stop;
    }
    return used;
}

// After output only the words for a finished command are possible; "Good-bye." is the answer only to `quit`.
bool answer_parser::expected(outcome how) const {
    if (how == outcome::over || how == outcome::module_timeout) {
        return true;
    }
    return first_line_ && (how != outcome::goodbye || quitting_);
}

// True while the held bytes may still become a terminating line.
bool answer_parser::may_end() const {
    for (const terminator& t : terminators) {
        if (!expected(t.how)) {
            continue;
        }
        if (held_.size() <= t.word.size()
                ? t.word.starts_with(held_)
                : held_.starts_with(t.word) && held_.size() < t.longest && held_.back() != '\n') {
            return true;
        }
    }
    return false;
}

bool answer_parser::is_end() {
    for (const terminator& t : terminators) {
        if (!expected(t.how) || !held_.starts_with(t.word)) {
            continue;
        }
        end_ = command_result(t.how);  // without the fields of an earlier line that was none
        return t.longest == 0 || read_fields(held_, end_);
    }
    return false;
}

void answer_parser::release(std::string& text) {
    holding_ = false;
    const std::string line = std::move(held_);
    // A string that was moved from has no defined content.
    held_.clear();
    put(line, text);
}

// part holds at most one LF, at its end.
void answer_parser::put(std::string_view part, std::string& text) {
    if (cr_ && part != "\n") {
        text += '\r';
    }
    cr_ = false;
    if (part.ends_with("\r\n")) {
        text.append(part, 0, part.size() - 2);
        text += '\n';
    } else if (part.ends_with('\r')) {
        text.append(part, 0, part.size() - 1);
        // The LF of this line end may come with the next part.
        cr_ = true;
    } else {
        text += part;
    }
    if (part.ends_with('\n')) {
        holding_ = true;
        first_line_ = false;
    }
}

}  // namespace client
