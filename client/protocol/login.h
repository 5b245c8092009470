// Answers the scheduler's login challenge.
#pragma once

#include "protocol/answer.h"

#include <optional>
#include <string>

namespace client {

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

    bool has_file() const { return !file_.empty(); }

    // Returns the password; null when there is none, with the reason in problem when its file cannot be read.
    const std::string* get(std::string& problem);

    void set(std::string password);
    void forget();  // it was refused

private:
    std::string file_;
    std::optional<std::string> password_;
};

}  // namespace client
