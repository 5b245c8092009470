// Answers as JSON for scripts.
#pragma once

#include <string>
#include <string_view>

namespace client {

// One line of JSON each, pure ASCII, with its line feed. Bytes that are not UTF-8 become U+FFFD.
std::string status_json(std::string_view answer);
std::string show_ip_json(std::string_view answer);

}  // namespace client
