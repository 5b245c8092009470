// Answers the scheduler's login challenge.
#pragma once

#include "answer.h"

#include <string>

namespace client {

// Gets the password from a file or from the operator. It is kept in memory, because `watch` and sessions log in again
// at each new connection.
class password_source {
public:
    explicit password_source(std::string file) : file_(std::move(file)) {}
    ~password_source();
    password_source(const password_source&) = delete;
    password_source& operator=(const password_source&) = delete;

    // Returns the request line "login" for this challenge. Empty when there is no password; problem then has the
    // reason.
    std::string answer(const answer_end& challenge, const std::string& host, std::string& problem);

    // What the answer to that request means: over when it was accepted, else why not. A password that was refused is
    // forgotten and asked for again next time.
    answer_end result_of(const answer_end& end);

private:
    void forget();
    bool get_password(const std::string& host, std::string& problem);

    std::string file_;  // empty: ask on the terminal
    std::string password_;
    bool known_ = false;
};

}  // namespace client
