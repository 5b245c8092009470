// One command as requests and answers, with the greeting and the login before it. It has no connection of its own: the
// caller sends and receives the bytes.
#pragma once

#include "answer.h"

#include <string>
#include <string_view>
#include <vector>

namespace client {

class password_source;

class dialogue {
public:
    // words: the command, not empty and accepted by join_words, and not "ipset", which has no answer on success.
    // user: the name for a greeting; empty: no greeting. host: for the prompt of the password. password may be null, a
    // login then fails; it must outlive the dialogue.
    dialogue(std::vector<std::string> words, std::string user, std::string host, password_source* password);

    // Appends the first requests to send.
    void begin(std::string& requests);

    // Reads bytes of the scheduler, while the command is not done. Appends the command's output, with line ends as LF,
    // and the next request to send.
    void feed(std::string_view bytes, std::string& output, std::string& requests);

    // Call when the scheduler has closed the connection: the command is then done. served: bytes had come over it.
    void lost(bool served);

    bool done() const { return done_; }
    const answer_end& end() const { return end_; }  // valid when done

private:
    enum class step { greeting, login, probe, command };

    void say(step next, std::string& requests);
    void say_command(std::string& requests);
    void answered(const answer_end& end, std::string& requests);
    void log_in(const answer_end& challenge, std::string& requests);
    void login_answered(const answer_end& end, std::string& requests);
    void finish(answer_end end);

    std::vector<std::string> words_;
    std::string user_;
    std::string host_;
    password_source* password_;
    bool restarting_;
    step at_ = step::command;
    step after_login_ = step::command;
    bool logged_in_ = false;  // since the step that required it
    answer_parser parser_;
    bool done_ = false;
    answer_end end_;
};

}  // namespace client
