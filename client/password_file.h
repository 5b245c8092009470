// The scheduler's password file: hash text, a blank, salt, a line feed.
#pragma once

#include <string>

namespace client {

struct password_record {
    std::string hash;  // 64 lower-case hexadecimal digits
    std::string salt;  // 8 letters or digits
};

// true when the file holds a record that the scheduler would accept; else problem says why not.
bool read_password_file(const std::string& path, password_record& record, std::string& problem);

// Puts a new file in the old one's place in one step: the scheduler, starting at any moment, reads the old
// one or the new one, never half of it. A symbolic link is refused. Mode 0600; root leaves it to the old file's owner, or to the
// directory's, since a file that the scheduler may not read means no login at all.
bool write_password_file(const std::string& path, const password_record& record, std::string& problem);

}  // namespace client
