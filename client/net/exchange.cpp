#include "net/exchange.h"

#include "protocol/limits.h"
#include "protocol/login.h"
#include "protocol/words.h"

#include <utility>

namespace client {

exchange::exchange(std::vector<std::string> words, std::string user, password_store& passwords)
    : words_(std::move(words)), user_(std::move(user)), passwords_(passwords) {}

void exchange::begin(std::string& requests) {
    return user_.empty() ? begin_command(requests) : say(step::greeting, requests);
}

// The last request and "restart sched" have `status` before them: messages that the scheduler has queued for this
// connection come with it. It also proves that the scheduler serves this connection, so that a refused one is
// not taken for a restart. A successful "ipset" has no answer, so an empty line follows it. An unknown word
// and an empty line get the same answer, so "ipset" is first sent alone.
void exchange::begin_command(std::string& requests) {
    const bool comes_behind_status = is_final() || is("restart");
    say(comes_behind_status ? step::status_before
        : sets_address()    ? step::ipset_known
                            : step::command,
        requests);
}

void exchange::say(step next, std::string& requests) {
    at_ = next;
    parser_ = answer_parser(next == step::command && is("quit"));
    std::string line;
    if (!is_final()) {
        join_words(words_, line);  // cannot fail: it has accepted these words before
    }
    if (next == step::greeting) {
        requests += "hello\t" + user_ + '\r';
    } else if (next == step::status_before) {
        requests += is_final() ? "status\rquit\r" : "status\r" + line + '\r';
    } else if (next == step::ipset_known) {
        requests += "ipset\r";
    } else {
        requests += line + (sets_address() ? "\r\r" : "\r");
    }
}

bool exchange::may_take_long() const {
    return at_ == step::greeting || (at_ == step::command && !is_final() && !is_answered_at_once(words_[0]));
}

void exchange::feed(std::string_view bytes, std::string& text, std::string& requests) {
    held_ += bytes;
    while (!done_ && !held_.empty() && !needs_password()) {
        const bool is_wanted = at_ == step::command || at_ == step::status_before;
        std::string unwanted;  // of the greeting, the login and the probe
        const std::size_t before = text.size();
        held_.erase(0, parser_.feed(held_, is_wanted ? text : unwanted));
        received_ += text.size() - before;
        if (!may_take_long() && received_ > max_answer) {
            return finish({outcome::bad_answer, "it is too long"});
        }
        if (!parser_.done()) {
            return;
        }
        answered(command_result(parser_.end()), requests);
    }
}

void exchange::answered(const command_result& end, std::string& requests) {
    if (at_ == step::login) {
        return login_answered(end, requests);
    }
    if (at_ == step::status_before) {
        // The answer to the line behind it follows, also when both are refused.
        at_ = step::command;
        parser_ = answer_parser(is_final());
        return;
    }
    if (at_ == step::ipset_failed) {
        return finish(end_);
    }
    if (sets_address() && at_ == step::command) {
        return ipset_answered(end);
    }
    if (end.how == outcome::unauth && !is_final()) {
        return challenged(end, requests);
    }
    if (at_ == step::greeting) {
        // It does not matter whether the scheduler has a module for the greeting. The command may require a login.
        return begin_command(requests);
    }
    if (at_ == step::ipset_known && end.how == outcome::over) {
        return say(step::command, requests);
    }
    finish(end);
}

// The empty line behind a successful ipset is the first to be answered. A failed one has an answer of its own.
void exchange::ipset_answered(const command_result& end) {
    if (end.how == outcome::over) {
        end_ = end;
        at_ = step::ipset_failed;
        parser_ = answer_parser();
        return;
    }
    const bool accepted = end.how == outcome::unsupported || end.how == outcome::unauth;
    finish(accepted ? command_result{outcome::over} : end);
}

void exchange::challenged(const command_result& challenge, std::string& requests) {
    // A second challenge after a successful login: trying again could go on for ever.
    if (logged_in_) {
        return finish({outcome::login_refused, "the scheduler still requires a login"});
    }
    challenge_ = challenge;
    after_login_ = at_;
    at_ = step::password;
    std::string problem;
    if (passwords_.get(problem) != nullptr || !problem.empty()) {
        log_in(problem, requests);
    }
}

void exchange::log_in(const std::string& no_password, std::string& requests) {
    std::string ignored;
    const std::string* password = passwords_.get(ignored);
    if (password == nullptr || !no_password.empty()) {
        return finish({outcome::login_refused, no_password});
    }
    at_ = step::login;
    parser_ = answer_parser();
    requests += login_line(challenge_, *password) + '\r';
}

void exchange::login_answered(const command_result& end, std::string& requests) {
    if (end.how == outcome::over && end.code == 0) {
        logged_in_ = true;
        return after_login_ == step::greeting ? say(step::greeting, requests) : begin_command(requests);
    }
    if (end.how != outcome::over && end.how != outcome::unsupported) {
        return finish(end);
    }
    // It is asked for again next time.
    passwords_.forget();
    finish({outcome::login_refused,
            end.how == outcome::over ? "wrong password" : "the scheduler does not know the login command"});
}

void exchange::finish(command_result end) {
    if (end.how == outcome::busy && !is_final()) {
        end.reason = is("unlock") ? "this connection does not hold the lock" : "switched off or locked";
    }
    end_ = std::move(end);
    done_ = true;
}

void exchange::lost(bool received_any) {
    // The answer to "restart sched" is the end of the connection.
    if (is("restart") && at_ == step::command) {
        return finish({outcome::over});
    }
    if (sets_address() && at_ == step::command) {
        return finish({outcome::closed, "the scheduler does not allow this address"});
    }
    finish({outcome::closed, received_any ? "the scheduler closed it"
                                          : "the scheduler closed it at once: its table of connections may "
                                            "be full, or this address is not allowed"});
}

}  // namespace client
