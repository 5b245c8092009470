// The requests of one command and their answers, with the greeting and the login before it.
#include "net/host_link.h"
#include "protocol/login.h"
#include "protocol/words.h"

#include <stdexcept>

void host_link::begin() { return greets_ ? say(state::hello) : begin_command(); }

// The last request and "restart sched" have `status` before them: messages that the scheduler has queued for this
// connection come with it. It also proves that the scheduler serves this connection, so that a refused one is
// not taken for a restart. A successful "ipset" has no answer, so an empty line follows it. An unknown word
// and an empty line get the same answer, so "ipset" is first sent alone.
void host_link::begin_command() {
    const bool comes_behind_status = is_final() || is("restart");
    say(comes_behind_status ? state::status : sets_address() ? state::probe : state::command);
}

void host_link::say(state next) {
    state_ = next;
    received_ = 0;
    parser_ = answer_parser(next == state::command && is("quit"));
    std::string line;
    if (!is_final()) {
        join_words(words_, line);  // cannot fail: it has accepted these words before
    }
    if (next == state::hello) {
        requests_ += "hello\t" + how_.user + '\r';
    } else if (next == state::login) {
        requests_ += login_line(challenge_, *passwords_.get()) + '\r';
    } else if (next == state::status) {
        requests_ += is_final() ? "status\rquit\r" : "status\r" + line + '\r';
    } else if (next == state::probe) {
        requests_ += "ipset\r";
    } else {
        requests_ += line + (sets_address() ? "\r\r" : "\r");
    }
}

// True while the scheduler may wait for a module program or another host.
bool host_link::may_take_long() const {
    if (state_ != state::command || is_final()) {
        return state_ == state::hello;
    }
    const daemon_word* const known = find_daemon_word(words_[0]);
    return known == nullptr || !known->at_once;
}

void host_link::on_answer(const command_result& end) {
    if (state_ == state::login) {
        return on_login(end);
    }
    if (state_ == state::status) {
        // The answer to the line behind it follows, also when both are refused.
        state_ = state::command;
        parser_ = answer_parser(is_final());
    } else if (failed_ipset_) {
        finish(*failed_ipset_);
    } else if (state_ == state::command && sets_address()) {
        on_ipset(end);
    } else if (end.how == outcome::unauth && !is_final()) {
        on_challenge(end);
    } else if (state_ == state::hello) {
        // It does not matter whether the scheduler has a module for the greeting. The command may require a login.
        begin_command();
    } else if (state_ == state::probe && end.how == outcome::over) {
        say(state::command);
    } else {
        finish(end);
    }
}

// The empty line behind a successful ipset is the first to be answered. A failed one has an answer of its own.
void host_link::on_ipset(const command_result& end) {
    if (end.how == outcome::over) {
        failed_ipset_ = end;
        parser_ = answer_parser();
    } else {
        const bool accepted = end.how == outcome::unsupported || end.how == outcome::unauth;
        finish(accepted ? command_result(outcome::over) : end);
    }
}

void host_link::on_challenge(const command_result& challenge) {
    needed_login_ = true;
    // A second challenge after a successful login: trying again could go on for ever.
    if (logged_in_) {
        return fail({outcome::login_refused, "the scheduler still requires a login"});
    }
    challenge_ = challenge;
    const std::string* password = nullptr;
    try {
        password = passwords_.get();
    } catch (const std::runtime_error& problem) {
        return fail({outcome::login_refused, problem.what()});
    }
    if (password != nullptr) {
        return say(state::login);
    }
    state_ = state::password;  // until log_in()
}

void host_link::on_login(const command_result& end) {
    if (end.how == outcome::over && end.code == 0) {
        logged_in_ = true;
        return begin();
    }
    if (end.how != outcome::over && end.how != outcome::unsupported) {
        return finish(end);
    }
    // It is asked for again next time.
    passwords_.forget();
    fail({outcome::login_refused,
          end.how == outcome::over ? "wrong password" : "the scheduler does not know the login command"});
}

// How the command ends when the scheduler has closed the connection.
command_result host_link::reason_for_closing() const {
    // The answer to "restart sched" is the end of the connection.
    if (is("restart") && state_ == state::command) {
        return outcome::over;
    }
    if (sets_address() && state_ == state::command && !failed_ipset_) {
        return {outcome::closed, "the scheduler does not allow this address"};
    }
    return {outcome::closed, received_any_ ? "the scheduler closed it"
                                           : "the scheduler closed it at once: its table of connections may "
                                             "be full, or this address is not allowed"};
}
