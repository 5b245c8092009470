#include "dialogue.h"

#include "login.h"
#include "words.h"

#include <utility>

namespace client {

dialogue::dialogue(std::vector<std::string> words, std::string user, std::string host,
                   password_source* password)
    : words_(std::move(words)),
      user_(std::move(user)),
      host_(std::move(host)),
      password_(password),
      restarting_(words_[0] == "restart") {}

void dialogue::begin(std::string& requests) {
    if (!user_.empty()) {
        say(step::greeting, requests);
    } else {
        say_command(requests);
    }
}

void dialogue::say_command(std::string& requests) {
    say(restarting_ ? step::probe : step::command, requests);
}

// Appends the request of a step. The answer to "restart sched" is the end of the connection. The answer to an empty
// line before it proves that the scheduler serves this connection, so that a refused connection is not taken for a
// restart.
void dialogue::say(step next, std::string& requests) {
    at_ = next;
    const bool is_command = next == step::command;
    parser_ = answer_parser(is_command && words_[0] == "quit");
    if (next == step::greeting) {
        requests += "hello\t" + user_;
    } else if (is_command) {
        // Not read: join_words has accepted these words before.
        std::string problem;
        std::string line;
        join_words(words_, line, problem);
        requests += line;
    }
    requests += '\r';
}

void dialogue::feed(std::string_view bytes, std::string& output, std::string& requests) {
    std::string unwanted;  // output of the greeting and of the probe is not for the caller
    parser_.feed(bytes, at_ == step::command ? output : unwanted);
    // Each request waits for the answer to the one before, so bytes behind an answer belong to none.
    if (parser_.done()) {
        answered(answer_end(parser_.end()), requests);
    }
}

void dialogue::answered(const answer_end& end, std::string& requests) {
    if (at_ == step::login) {
        return login_answered(end, requests);
    }
    if (end.how == ending::unauth) {
        return log_in(end, requests);
    }
    if (at_ == step::greeting) {
        // It does not matter whether the scheduler has a module for the greeting.
        // The command may require a login of its own.
        logged_in_ = false;
        say_command(requests);
    } else if (at_ == step::probe && end.how == ending::unsupported) {
        say(step::command, requests);
    } else {
        finish(end);
    }
}

void dialogue::log_in(const answer_end& challenge, std::string& requests) {
    answer_end refused{ending::login_refused, "the scheduler still requires a login"};
    // A second challenge after a successful login: trying again could go on for ever.
    if (logged_in_) {
        return finish(refused);
    }
    if (password_ == nullptr) {
        refused.reason = "there is no --password-file";
        return finish(refused);
    }
    const std::string line = password_->answer(challenge, host_, refused.reason);
    if (line.empty()) {
        return finish(refused);
    }
    after_login_ = at_;
    at_ = step::login;
    parser_ = answer_parser();
    requests += line + '\r';
}

void dialogue::login_answered(const answer_end& end, std::string& requests) {
    const answer_end result = password_->result_of(end);
    if (result.how != ending::over) {
        return finish(result);
    }
    logged_in_ = true;
    // The request that required the login was not carried out.
    if (after_login_ == step::greeting) {
        say(step::greeting, requests);
    } else {
        say_command(requests);
    }
}

void dialogue::lost(bool served) {
    // For a restart the end of the connection is the answer.
    if (at_ == step::command && restarting_) {
        finish({ending::over});
    } else {
        finish({ending::closed, why_closed(served)});
    }
}

void dialogue::finish(answer_end end) {
    end_ = std::move(end);
    if (end_.how == ending::busy) {
        end_.reason = why_busy(words_[0]);
    }
    done_ = true;
}

}  // namespace client
