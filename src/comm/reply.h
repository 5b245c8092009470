// What the scheduler writes to an HMI: the words of the protocol, and the routines that write to the socket.
#pragma once

#include "util/clock.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr std::size_t reply_size = 16384;         // bytes of one formatted reply, its NUL included
constexpr std::int64_t reply_patience_ms = 5000;  // longest wait for a peer under com_lock

// The lines that end an answer.
constexpr std::string_view busy_line = "__busy__\r\n";                // not carried out
constexpr std::string_view unsupported_line = "__unsupported__\r\n";  // not known
constexpr std::string_view timeout_line = "__timeout__\r\n";          // the module was killed
constexpr std::string_view good_bye_line = "Good-bye.\r\n";           // the connection is closed next
constexpr char over_format[] = "__over__ %d %d\r\n";                  // finished: exit code, signal
constexpr char unauth_format[] = "__unauth__ %s %s\r\n";              // login required: nonce, salt

// Formats a reply, cut at 16383 characters, and writes it with one write, or with more when a signal interrupts the
// first. Returns false when a write failed; the caller may ignore that, since the connection's next read reports the
// end. Waits without limit for a peer that does not read, so never call it under a lock of the scheduler. The
// operators' lock is an exception: such a peer keeps it until its connection ends.
[[gnu::format(printf, 2, 3)]] bool reply(int soc, const char* format, ...);

// Writes a text by the same rules.
bool reply_text(int soc, std::string_view text);

// Writes "__over__ code signal": 0 0 for success, 1 0 for the failure of an internal command.
void reply_over(int soc, int code, int signal);

// While it exists, the system collects what is written to the socket into full packets; its end sends the rest. An
// answer of several lines then costs one packet and wakes its reader once. Only for answers whose lines follow each
// other at once.
class gathered_answer {
public:
    explicit gathered_answer(int soc);
    ~gathered_answer();
    gathered_answer(const gathered_answer&) = delete;
    gathered_answer& operator=(const gathered_answer&) = delete;

private:
    int soc_;
};

// Returns true when an answer to the calling thread's client could not be written since the last call. Each client has a
// thread of its own. Its connection's thread only.
bool has_answer_failed();

// Writes all of text to any stream socket. Waits for a peer that does not read, but only until end. Returns false when
// not all could be written; the result may be ignored. The connection is then shut down, since the peer would take the
// next text for the rest of this one. Takes no lock. Under com_lock, end is reply_patience_ms away, for all writes
// together.
bool write_until(const deadline& end, int soc, std::string_view text);

// The same for an answer to the calling thread's client, or its end; see has_answer_failed.
void reply_until(const deadline& end, int soc, std::string_view text);
