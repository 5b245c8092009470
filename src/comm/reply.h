// What the scheduler writes to an HMI: the protocol's words, and how bytes get onto the socket.
#pragma once

#include "util/clock.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr std::size_t reply_size = 16384;  // bytes of one formatted reply, its NUL included
constexpr std::int64_t reply_patience_ms =
    5000;  // how long a peer that does not read is waited for under a lock

// Terminating lines of an answer.
constexpr std::string_view busy_line = "__busy__\r\n";                // not carried out
constexpr std::string_view unsupported_line = "__unsupported__\r\n";  // not known
constexpr std::string_view timeout_line = "__timeout__\r\n";          // the module was killed
constexpr std::string_view good_bye_line = "Good-bye.\r\n";           // the connection is closed next
constexpr char over_format[] = "__over__ %d %d\r\n";                  // finished: exit code, signal
constexpr char unauth_format[] = "__unauth__ %s %s\r\n";              // login required: nonce, salt

// Formats a reply, cut at 16383 characters, and writes it with one write, or more when a signal cuts that short. A
// failed write may be ignored: the connection's next read finds out. Returns false for one. Waits without limit for a
// peer that does not read, so never call it under a lock of the scheduler's own. The operators' lock is not protected
// from such a peer: it stays taken until that connection ends.
[[gnu::format(printf, 2, 3)]] bool reply(int soc, const char* format, ...);

// Writes a text under the same rules.
bool reply_text(int soc, std::string_view text);

// Writes "__over__ code signal": 0 0 for success, 1 0 for the failure of an internal command.
void reply_over(int soc, int code, int signal);

// While it exists, the system gathers what is written to the socket into full packets; the rest leaves at its end. An
// answer of several lines then costs one packet and wakes its reader once. For answers that never pause between lines.
class gathered_answer {
public:
    explicit gathered_answer(int soc);
    ~gathered_answer();
    gathered_answer(const gathered_answer&) = delete;
    gathered_answer& operator=(const gathered_answer&) = delete;

private:
    int soc_;
};

// Writes all of text to a stream socket, which may be an HMI's or another, and waits for a peer that does not read
// until end at the latest. Returns false when not all could be written; errno is ETIMEDOUT when end has passed. The
// connection is then shut down, since the peer would take what follows for the rest of this text. Takes no lock.
[[nodiscard]] bool write_until(const deadline& end, int soc, std::string_view text);

// The same for an answer under com_lock, within reply_patience_ms. A failure is not reported.
void reply_in_time(int soc, std::string_view text);
