#include "protocol/login.h"

#include "term/descriptor.h"

#include <bsd/readpassphrase.h>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <sha2.h>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

constexpr std::string_view alphanumeric = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::size_t longest_password = 512;  // bytes
constexpr const char* too_long = "a password has at most 512 bytes";

// Returns the SHA-256 of the text as 64 lower-case hexadecimal digits.
std::string sha256_hex(const std::string& text) {
    char hex[SHA256_DIGEST_STRING_LENGTH];
    return SHA256Data(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), hex);
}

// Asks once. Returns false with errno; 0: nothing was typed.
bool read_at_terminal(const std::string& prompt, std::string& password) {
    char typed[longest_password + 2];  // one byte more shows that it is too long, and one is for the final zero
    errno = 0;
    password = readpassphrase(prompt.c_str(), typed, sizeof typed, RPP_REQUIRE_TTY) != nullptr ? typed : "";
    explicit_bzero(typed, sizeof typed);
    return !password.empty();
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

bool has_terminal() { return descriptor(open("/dev/tty", O_RDONLY | O_CLOEXEC)).is_open(); }

bool ask_password(const std::string& prompt, bool verify, std::string& password, std::string& problem) {
    std::string again;
    // Ctrl-C ends the prompt, not the program. Other signals are sent again when the terminal is restored.
    const auto usual = std::signal(SIGINT, [](int) {});
    if (!read_at_terminal(prompt, password) || (verify && !read_at_terminal("Verifying - " + prompt, again))) {
        problem = errno == ENOTTY ? "no terminal to ask for the password" : "no password given";
    } else if (verify && again != password) {
        problem = "the passwords differ";
    } else if (password.size() > longest_password) {
        problem = too_long;
    }
    std::signal(SIGINT, usual);
    wipe(again);
    if (!problem.empty()) {
        wipe(password);
    }
    return problem.empty();
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
        throw std::runtime_error(name + ": " + too_long);
    }
    return password;
}

void wipe(std::string& text) {
    explicit_bzero(text.data(), text.size());  // the compiler may leave out other writes, as nobody reads them
}

std::string login_line(const command_result& challenge, const std::string& password) {
    const std::string own_nonce = random_alphanumeric(64);
    const std::string response = sha256_hex(hash_text(challenge.salt, password) + challenge.nonce + own_nonce);
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
