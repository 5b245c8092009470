#include "password_check.h"

#include "comm/login.h"
#include "config_lines.h"
#include "trace_capture.h"
#include "util/text.h"

#include <sstream>

namespace check {

namespace {

constexpr std::size_t read_at_once = 127;    // bytes of the file that the daemon looks at
constexpr std::size_t line_size = 1U << 20;  // the daemon reads no lines here: nearly any length is one piece

}  // namespace

void check_password(findings& to) {
    const std::string file = std::string(environment("VGD_data")) + "/password";
    std::size_t before = 0;  // bytes of the earlier lines
    std::size_t words = 0;
    std::string hash;
    int ignored = 0;  // first line with text that is not read
    const auto validate = [&](const line_piece& line) {
        std::istringstream text(line.text);
        std::string word;
        while (text >> word) {
            hash = ++words == 1 ? word : hash;
            const std::size_t end = before + (text.eof() ? line.text.size() : static_cast<std::size_t>(text.tellg()));
            ignored = ignored == 0 && (words > 2 || end > read_at_once) ? line.number : ignored;
        }
        before += line.text.size();
    };
    if (!validate_lines(file, line_size, missing_file::allowed, to, validate)) {
        return;
    }
    read_password_file();
    if (take_trace().find("Error:invalid password file format") != std::string::npos) {
        to.add(file, 1, "not a hash of 64 characters and a salt of 8 characters: nobody needs to log in");
        return;
    }
    if (hash.find_first_not_of("0123456789abcdef") != std::string::npos) {
        to.add(file, 1, "the hash is not in lower-case hexadecimal digits: nobody can log in");
    }
    if (ignored != 0) {
        to.add(file, ignored, "what follows the hash and the salt is ignored");
    }
}

}  // namespace check
