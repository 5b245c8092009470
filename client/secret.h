// Passwords and what is made from them; shared by schedctl and schedpasswd.
//
// Hash text: SHA-256 of the salt followed by the password, as 64 lower-case hexadecimal digits. The scheduler
// keeps it with the salt and never sees the password.
//
// What makes digests and random texts throws when the system refuses it.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

namespace client {

// SHA-256 of the text as 64 lower-case hexadecimal digits.
std::string sha256_hex(std::string_view text);

std::string hash_text(std::string_view salt, std::string_view password);

// Random lower-case hexadecimal digits, two for each byte.
std::string random_hex(std::size_t bytes);

// Random letters and digits, each of the 62 equally likely.
std::string random_alphanumeric(std::size_t length);

// Asks on the terminal without echo; twice when verify is set. false when there is no terminal, the operator
// gives up, or the two differ; problem says which.
bool ask_password(const std::string& prompt, bool verify, std::string& password, std::string& problem);

// The first line without its LF or CR LF. The caller sets errno to 0 before the stream is opened or read. false
// when there is none, or a longer one than could be typed; problem says why.
bool read_password(std::istream& from, std::string& password, std::string& problem);

// Overwrites the text before it is released.
void wipe(std::string& text);

}  // namespace client
