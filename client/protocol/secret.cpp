#include "protocol/secret.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <istream>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <stdexcept>
#include <sys/random.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

constexpr std::string_view alphanumeric = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr int longest_password = 512;  // bytes

// Reads at most 256 bytes, which the system returns all at once.
void random_bytes(unsigned char* bytes, std::size_t count) {
    if (getrandom(bytes, count, 0) != static_cast<ssize_t>(count)) {
        throw std::system_error(errno, std::generic_category(), "no random bytes");
    }
}

std::string hex(const unsigned char* bytes, std::size_t count) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

}  // namespace

std::string sha256_hex(std::string_view text) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest;
    unsigned length = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("libcrypto refuses SHA-256");
    }
    return hex(digest.data(), length);
}

std::string hash_text(std::string_view salt, std::string_view password) {
    std::string joined = std::string(salt).append(password);  // wiped below, since it contains the password
    std::string text = sha256_hex(joined);
    wipe(joined);
    return text;
}

std::string random_hex(std::size_t bytes) {
    std::string raw(bytes, '\0');
    random_bytes(reinterpret_cast<unsigned char*>(raw.data()), bytes);
    return hex(reinterpret_cast<const unsigned char*>(raw.data()), bytes);
}

std::string random_alphanumeric(std::size_t length) {
    // Bytes above the last multiple of 62 are discarded, or they would make the first characters more likely.
    constexpr std::size_t fair = 256 / alphanumeric.size() * alphanumeric.size();
    std::string text;
    while (text.size() < length) {
        unsigned char byte = 0;
        random_bytes(&byte, 1);
        if (byte < fair) {
            text += alphanumeric[byte % alphanumeric.size()];
        }
    }
    return text;
}

bool ask_password(const std::string& prompt, bool verify, std::string& password, std::string& problem) {
    // Without a terminal, libcrypto's prompt would read standard input, which a script uses for other data.
    const int terminal = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal < 0) {
        problem = "no terminal to ask for the password";
        return false;
    }
    close(terminal);
    // One byte more for the final zero.
    char typed[longest_password + 1];
    const int result = EVP_read_pw_string_min(typed, 0, longest_password, prompt.c_str(), verify ? 1 : 0);
    if (result == 0) {
        password = typed;
    } else {
        problem = result == -1 && verify ? "the passwords differ" : "no password given";
    }
    // On failure too, as it may contain a part of the password.
    OPENSSL_cleanse(typed, sizeof typed);
    return result == 0;
}

bool read_password(std::istream& from, std::string& password, std::string& problem) {
    if (!std::getline(from, password)) {
        problem = errno != 0 ? std::generic_category().message(errno) : "no password";
        return false;
    }
    // The line may come from a file with CR LF.
    if (password.ends_with('\r')) {
        password.pop_back();
    }
    if (password.size() > longest_password) {
        problem = "a password has at most " + std::to_string(longest_password) + " bytes";
        return false;
    }
    return true;
}

void wipe(std::string& text) {
    // The compiler may leave out a memset of memory that is not read again.
    OPENSSL_cleanse(text.data(), text.size());
    text.clear();
}

}  // namespace client
