#include "protocol/login.h"

#include "protocol/secret.h"

#include <cerrno>
#include <fstream>
#include <utility>

namespace client {

std::string login_line(const command_result& challenge, const std::string& password) {
    const std::string own_nonce = random_hex(32);
    const std::string response =
        sha256_hex(hash_text(challenge.salt, password) + challenge.nonce + own_nonce);
    return "login\t" + response + "\t" + challenge.nonce + "\t" + own_nonce;
}

const std::string* password_store::get(std::string& problem) {
    if (!password_ && has_file()) {
        // A stream does not store the reason of a failure; errno may have it.
        errno = 0;
        std::ifstream file(file_);
        std::string text;
        if (read_password(file, text, problem)) {
            set(std::move(text));
        } else {
            problem.insert(0, file_ + ": ");
        }
    }
    return password_ ? &*password_ : nullptr;
}

void password_store::set(std::string password) {
    forget();
    password_ = std::move(password);
}

void password_store::forget() {
    if (password_) {
        wipe(*password_);
    }
    password_.reset();
}

}  // namespace client
