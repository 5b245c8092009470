// The password file: hash and salt are used only when both are valid.
#include "comm/login.h"
#include "support.h"

#include <sstream>

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::Suite suite;
    suite.write("password", fuzz::text_of(data, size));
    read_password_file();
    std::istringstream words(std::string(fuzz::text_of(data, size).substr(0, 127)).c_str());
    std::string hash;
    std::string salt;
    words >> hash >> salt;
    if (hash.size() != 64 || salt.size() != 8) hash = salt = "";
    fuzz::require(hash == st->auth_hash && salt == st->auth_salt, "daemon and check read the same hash and salt");
    return 0;
}
