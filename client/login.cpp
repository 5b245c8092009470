#include "login.h"

#include <fstream>

#include "secret.h"
#include "signals.h"

namespace client {

password_source::~password_source() {
    forget();
}

void password_source::forget() {
    wipe(password_);
    known_ = false;
}

bool password_source::read_password(const std::string& host, std::string& problem) {
    if (file_.empty()) {
        const signals_through through;
        known_ = ask_password("Password for " + host + ": ", false, password_, problem);
    } else {
        std::ifstream file(file_);
        known_ = static_cast<bool>(std::getline(file, password_));
        problem = "no password in " + file_;
    }
    return known_;
}

std::string password_source::answer(const answer_end& challenge, const std::string& host,
                                    std::string& problem) {
    if (!known_ && !read_password(host, problem))
        return "";
    const std::string own_nonce = random_hex(32);
    const std::string response =
        sha256_hex(hash_text(challenge.salt, password_) + challenge.nonce + own_nonce);
    return "login\t" + response + "\t" + challenge.nonce + "\t" + own_nonce;
}

}  // namespace client
