// The password file: hash and salt are used only when both are valid.
#include "comm/login.h"
#include "support.h"

#include <cstring>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    suite.write("password", fuzz::text_of(data, size));
    read_password_file();
    const std::size_t hash = std::strlen(st->auth_hash);
    const std::size_t salt = std::strlen(st->auth_salt);
    fuzz::require((hash == 64 && salt == 8) || (hash == 0 && salt == 0), "both have their length, or both are empty");
    fuzz::require(std::strpbrk(st->auth_hash, " \t\n") == nullptr, "the hash is one word");
    return 0;
}
