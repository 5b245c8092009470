// The scheduler's password file: hash text, a blank, salt, a line feed.
#pragma once

#include <string>

namespace client {

struct password_record {
    std::string hash;  // 64 lower-case hexadecimal digits
    std::string salt;  // 8 letters or digits
};

// Returns true when the file contains a record that the scheduler would accept; else problem gets the reason.
bool read_password_file(const std::string& path, password_record& record, std::string& problem);

// Replaces the file in one step: a scheduler that starts at any moment reads the old file or the new one, never a part.
// A symbolic link, a device and a pipe are refused. The mode is 0600. When root writes it, the file gets the owner of the old file, else of
// the directory: a file that the scheduler cannot read would switch the login off.
bool write_password_file(const std::string& path, const password_record& record, std::string& problem);

}  // namespace client
