// One command as requests and answers, with the greeting and the login before it. It has no connection of its own: the
// caller sends and receives the bytes.
#pragma once

#include "protocol/answer.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

class password_store;

class exchange {
public:
    // words: the command, not empty and accepted by join_words; empty: the last request of a connection, `status` and
    // `quit` in one packet. user: the name for a greeting before it; empty: no greeting. passwords must outlive this.
    exchange(std::vector<std::string> words, std::string user, password_store& passwords);

    // Appends the first requests to send.
    void begin(std::string& requests);

    // Reads bytes of the scheduler, while the command is not done. Appends the output of the command, with LF
    // as line end, to text, and what must be sent next to requests.
    void feed(std::string_view bytes, std::string& text, std::string& requests);

    // Call when the scheduler has closed the connection: the command is then done. received_any: bytes had come.
    void lost(bool received_any);

    // True while a login waits for a password, which only the caller can get. Then call log_in with an empty reason
    // once the store has it, else with the reason why there is none.
    bool needs_password() const { return at_ == step::password; }
    void log_in(const std::string& no_password, std::string& requests);

    // True while the scheduler may wait for a module program or another host.
    bool may_take_long() const;

    bool needed_login() const { return !challenge_.nonce.empty(); }
    bool done() const { return done_; }
    const command_result& end() const { return end_; }  // valid when done

private:
    enum class step { greeting, password, login, status_before, ipset_known, ipset_failed, command };

    void say(step next, std::string& requests);
    void begin_command(std::string& requests);
    void answered(const command_result& end, std::string& requests);
    void challenged(const command_result& challenge, std::string& requests);
    void login_answered(const command_result& end, std::string& requests);
    void ipset_answered(const command_result& end);
    void finish(command_result end);
    bool is_final() const { return words_.empty(); }
    bool sets_address() const { return is("ipset") && words_.size() > 1; }
    bool is(std::string_view word) const { return !words_.empty() && words_[0] == word; }

    std::vector<std::string> words_;
    std::string user_;
    password_store& passwords_;
    step at_ = step::command;
    step after_login_ = step::command;
    bool logged_in_ = false;
    command_result challenge_;
    answer_parser parser_;
    std::string held_;  // bytes that came behind an answer, of a packet with two requests
    std::size_t received_ = 0;
    bool done_ = false;
    command_result end_;
};

}  // namespace client
