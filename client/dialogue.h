// One command over one connection as requests and answers, apart from how the bytes travel, with the greeting and
// the login before it.
#pragma once

#include "answer.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace client {

class password_source;

class dialogue {
public:
    // words: the command, not empty, such as join_words takes, and not "ipset", which may be answered by silence. user: greet with this name first; empty: do not.
    // host: for the password's prompt. password may be null: a login is then refused. It must outlive the dialogue.
    dialogue(std::vector<std::string> words, std::string user, std::string host, password_source* password);

    // Appends what is to be sent first.
    void begin(std::string& requests);

    // Takes bytes of the scheduler until the command is done and returns how many. Appends the command's output,
    // line ends as LF, and what is to be sent next.
    std::size_t feed(std::string_view bytes, std::string& output, std::string& requests);

    // The scheduler has closed the connection: the command is done. served: something had come over it.
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
    bool logged_in_ = false;  // since the step that wanted it
    answer_parser parser_;
    bool done_ = false;
    answer_end end_;
};

}  // namespace client
