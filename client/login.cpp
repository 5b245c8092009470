#include "login.h"

#include "secret.h"
#include "signals.h"

#include <cerrno>
#include <fstream>

namespace client {

password_source::~password_source() {
    forget();
}

void password_source::forget() {
    wipe(password_);
    known_ = false;
}

answer_end password_source::result_of(const answer_end& end) {
    if (end.how != ending::over && end.how != ending::unsupported) {
        return end;
    }
    if (end.how == ending::over && end.code == 0) {
        return end;
    }
    forget();
    return {ending::login_refused,
            end.how == ending::over ? "wrong password" : "the scheduler does not know the login command"};
}

bool password_source::get_password(const std::string& host, std::string& problem) {
    if (file_.empty()) {
        // Ctrl-C at the prompt must have its usual effect.
        const signals_through through;
        known_ = ask_password("Password for " + host + ": ", false, password_, problem);
    } else {
        // A stream does not store the reason of a failure; errno may have it.
        errno = 0;
        std::ifstream file(file_);
        known_ = read_password(file, password_, problem);
        problem.insert(0, file_ + ": ");
    }
    return known_;
}

std::string password_source::answer(const answer_end& challenge, const std::string& host,
                                    std::string& problem) {
    if (!known_ && !get_password(host, problem)) {
        return "";
    }
    // With a new nonce from the client, no two responses are the same, so a recorded one is of no use.
    const std::string own_nonce = random_hex(32);
    const std::string response =
        sha256_hex(hash_text(challenge.salt, password_) + challenge.nonce + own_nonce);
    return "login\t" + response + "\t" + challenge.nonce + "\t" + own_nonce;
}

}  // namespace client
