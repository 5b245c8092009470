// Passwords and the scheduler's login challenge; shared by schedctl and schedpasswd.
//
// The hash text is the SHA-256 of the salt followed by the password, as 64 lower-case hexadecimal digits. The scheduler
// stores it with the salt and never sees the password.
#pragma once

#include "protocol/answer.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

std::string hash_text(std::string_view salt, std::string_view password);

// Returns random letters and digits, each of the 62 equally likely. Throws when the system has no random numbers.
std::string random_alphanumeric(std::size_t length);

// Whether there is a terminal for ask_password().
bool has_terminal();

// Asks on the terminal without echo; twice when verify is set. Returns false when there is no terminal, the operator
// types nothing or presses Ctrl-C, the two differ, or the password is too long; problem must be empty and gets the
// reason.
bool ask_password(const std::string& prompt, bool verify, std::string& password, std::string& problem);

// Returns the first line without its LF or CR LF. The caller sets errno to 0 before it opens or reads the stream.
// Throws std::runtime_error, with the name of the stream, when there is no line, or one that is too long for a prompt.
std::string read_password(std::istream& from, const std::string& name);

// Overwrites the text before it is released.
void wipe(std::string& text);

// Returns the request line `login` for this challenge. A new nonce of the client makes each response different, so a
// recorded one is of no use.
std::string login_line(const command_result& challenge, const std::string& password);

// The password of all connections of a process. It is kept in memory, because each new connection logs in again.
class password_store {
public:
    // file: its first line is the password; empty: set() gives it.
    explicit password_store(std::string file) : file_(std::move(file)) {}
    ~password_store() { forget(); }
    password_store(const password_store&) = delete;
    password_store& operator=(const password_store&) = delete;

    // Returns the password; null when there is none. Throws std::runtime_error when its file cannot be read.
    const std::string* get();

    void set(std::string password);
    void forget();  // it was refused

private:
    std::string file_;
    std::optional<std::string> password_;
};
