// Answers the scheduler's login challenge.
#pragma once

#include "answer.h"

#include <string>

namespace client {

// Where the password comes from: a file, or the operator. Once given it is kept, since watching and sessions
// log in again whenever the connection is made anew.
class password_source {
public:
    explicit password_source(std::string file) : file_(std::move(file)) {}
    ~password_source();
    password_source(const password_source&) = delete;
    password_source& operator=(const password_source&) = delete;

    // The request line "login" for this challenge; empty when no password can be had, and problem says why.
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
