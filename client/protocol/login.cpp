#include "protocol/login.h"

#include "term/descriptor.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <random>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace client {

namespace {

constexpr std::string_view alphanumeric = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr int longest_password = 512;  // bytes

// Returns the SHA-256 of the text as 64 lower-case hexadecimal digits.
std::string sha256_hex(std::string_view text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned length = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("libcrypto refuses SHA-256");
    }
    char hex[2 * EVP_MAX_MD_SIZE + 1] = "";
    for (unsigned i = 0; i < length; ++i) {
        std::snprintf(hex + 2 * i, 3, "%02x", digest[i]);
    }
    return hex;
}

}  // namespace

std::string hash_text(std::string_view salt, std::string_view password) {
    std::string joined = std::string(salt).append(password);  // wiped below, since it contains the password
    std::string text = sha256_hex(joined);
    wipe(joined);
    return text;
}

std::string random_alphanumeric(std::size_t length) {
    std::random_device device("/dev/urandom");
    std::uniform_int_distribution<std::size_t> any(0, alphanumeric.size() - 1);
    std::string text;
    while (text.size() < length) {
        text += alphanumeric[any(device)];
    }
    return text;
}

bool has_terminal() {
    return descriptor(open("/dev/tty", O_RDONLY | O_CLOEXEC)).is_open();
}

bool ask_password(const std::string& prompt, bool verify, std::string& password, std::string& problem) {
    // Without a terminal, libcrypto's prompt would read standard input, which a script uses for other data.
    if (!has_terminal()) {
        problem = "no terminal to ask for the password";
        return false;
    }
    // One byte more for the final zero.
    char typed[longest_password + 1];
    const int result = EVP_read_pw_string_min(typed, 0, longest_password, prompt.c_str(), int{verify});
    if (result == 0) {
        password = typed;
    } else {
        problem = result == -1 && verify ? "the passwords differ" : "no password given";
    }
    // On failure too, as it may contain a part of the password.
    OPENSSL_cleanse(typed, sizeof typed);
    return result == 0;
}

std::string read_password(std::istream& from, const std::string& name) {
    std::string password;
    if (!std::getline(from, password)) {
        const std::string reason = errno != 0 ? std::generic_category().message(errno) : "no password";
        throw std::runtime_error(name + ": " + reason);
    }
    // The line may come from a file with CR LF.
    if (password.ends_with('\r')) {
        password.pop_back();
    }
    if (password.size() > longest_password) {
        throw std::runtime_error(name + ": a password has at most " + std::to_string(longest_password) +
                                 " bytes");
    }
    return password;
}

void wipe(std::string& text) {
    // The compiler may leave out a memset of memory that is not read again.
    OPENSSL_cleanse(text.data(), text.size());
}

std::string login_line(const command_result& challenge, const std::string& password) {
    const std::string own_nonce = random_alphanumeric(64);
    const std::string response =
        sha256_hex(hash_text(challenge.salt, password) + challenge.nonce + own_nonce);
    return "login\t" + response + "\t" + challenge.nonce + "\t" + own_nonce;
}

const std::string* password_store::get() {
    if (!password_ && !file_.empty()) {
        // A stream does not store the reason of a failure; errno may have it.
        errno = 0;
        std::ifstream file(file_);
        set(read_password(file, file_));
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
