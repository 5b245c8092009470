// Passwords, digests and random texts; shared by schedctl and schedpasswd.
//
// The hash text is the SHA-256 of the salt followed by the password, as 64 lower-case hexadecimal digits. The scheduler
// stores it with the salt and never sees the password.
//
// The functions for digests and random texts throw when the library fails.
#pragma once

#include <iosfwd>
#include <string>
#include <string_view>

namespace client {

// Returns the SHA-256 of the text as 64 lower-case hexadecimal digits.
std::string sha256_hex(std::string_view text);

std::string hash_text(std::string_view salt, std::string_view password);

// Returns random lower-case hexadecimal digits, two for each byte.
std::string random_hex(std::size_t bytes);

// Returns random letters and digits, each of the 62 equally likely.
std::string random_alphanumeric(std::size_t length);

// Asks on the terminal without echo; twice when verify is set. Returns false when there is no terminal, the operator
// gives up, or the two differ; problem gets the reason.
bool ask_password(const std::string& prompt, bool verify, std::string& password, std::string& problem);

// Reads the first line without its LF or CR LF. The caller sets errno to 0 before it opens or reads the stream. Returns
// false when there is no line, or one that is too long for a prompt; problem gets the reason.
bool read_password(std::istream& from, std::string& password, std::string& problem);

// Overwrites the text before it is released.
void wipe(std::string& text);

}  // namespace client
