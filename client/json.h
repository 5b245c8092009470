// Answers as JSON for scripts.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace client {

// Makes an answer's text into one line of JSON, pure ASCII, with its line feed. Bytes that are not UTF-8 become U+FFFD.
using json_writer = std::function<std::string(std::string_view answer)>;

// The writer of a command's answer; empty for a command without a JSON form.
json_writer json_writer_of(const std::vector<std::string>& words);

// Such a line for one host of many, "host" first. line may be empty when nothing has come. error: what went wrong,
// empty for a command that succeeded.
std::string host_json(const std::string& host, const std::string& line, const std::string& error);

// What json_writer_of knows, for messages.
inline constexpr const char* json_commands =
    "`status`, `modcntl`, `debug timer`, `show ip` or `show allowed_ip`";

}  // namespace client
