#include "protocol/answer.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iterator>

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
static_assert(std::size(meanings) == static_cast<std::size_t>(outcome::count_), "one meaning for each outcome");

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

std::optional<command_result> answer_parser::feed(std::string& input, std::string& text) {
    std::optional<command_result> end;
    std::size_t used = 0;
    for (std::size_t next = 0; used < input.size() && !end; used = next) {
        const std::size_t line_feed = input.find('\n', used);
        const bool is_whole = line_feed != std::string::npos;
        next = is_whole ? line_feed + 1 : input.size();
        const std::string_view line(input.data() + used, next - used);
        end = at_line_start_ && is_whole ? end_of(line) : std::nullopt;
        if (end) {
            continue;
        }
        if (at_line_start_ && !is_whole && may_end(line)) {
            break;
        }
        at_line_start_ = is_whole;
        first_line_ = first_line_ && !is_whole;
        if (line.ends_with("\r\n")) {
            text.append(line, 0, line.size() - 2) += '\n';
        } else if (line.ends_with('\r')) {
            text.append(line, 0, line.size() - 1);
            used = next - 1;  // the LF of this line end may come with the next bytes
            break;
        } else {
            text += line;
        }
    }
    input.erase(0, used);
    return end;
}

// After output only the words for a finished command are possible; "Good-bye." is the answer only to `quit`.
bool answer_parser::expected(outcome how) const {
    const bool has_finished = how == outcome::over || how == outcome::module_timeout;
    return has_finished || (first_line_ && (how != outcome::goodbye || quitting_));
}

// True while these bytes may still become a terminating line.
bool answer_parser::may_end(std::string_view start) const {
    return std::any_of(std::begin(terminators), std::end(terminators), [&](const terminator& t) {
        return expected(t.how) &&
               (t.word.starts_with(start) || (start.starts_with(t.word) && start.size() < t.longest));
    });
}

std::optional<command_result> answer_parser::end_of(std::string_view line) const {
    for (const terminator& t : terminators) {
        if (expected(t.how) && line.starts_with(t.word)) {
            command_result end(t.how);
            const bool is_end = t.longest == 0 || (line.size() <= t.longest && read_fields(std::string(line), end));
            return is_end ? std::optional(end) : std::nullopt;
        }
    }
    return std::nullopt;
}
