// What the scheduler writes to an HMI: the protocol's words, and how bytes get onto the socket.
#pragma once

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

// Formats a reply, cut at 16383 characters, and writes it with one write. A failed write is not reported: the
// connection's next read finds out. May wait for a peer that does not read, so never call it under a lock.
[[gnu::format(printf, 2, 3)]] void reply(int soc, const char* format, ...);

// Writes a fixed text with one write, under the same rules.
void reply_text(int soc, std::string_view text);

// Writes "__over__ code signal": 0 0 for success, 1 0 for the failure of an internal command.
void reply_over(int soc, int code, int signal);

// Writes text, waiting for room for patience milliseconds in all, and takes off patience what it waited: for writes
// under com_lock, which a stalled peer must not hold. Out of patience it shuts the connection down, since the peer
// would take the next answer for this one.
void reply_within(int soc, std::string_view text, std::int64_t& patience);

// Takes what the peer has already sent and closes the socket: closing over unread bytes would reset the connection,
// and the peer might lose the last answer.
void drain_and_close(int soc);

// Ends a connection that is not to be served: shut down, drained, closed, without a word.
void refuse_connection(int soc);
