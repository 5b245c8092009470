// Answers as JSON for scripts.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

// Returns one line of JSON in ASCII, with a line feed. Messages may contain bytes that are not UTF-8; these become
// U+FFFD.
std::string json_text(const nlohmann::ordered_json& value);

// Converts an answer to such a line.
using json_writer = std::function<std::string(std::string_view answer)>;

// Returns the converter for the answer of a command; empty for a command without a JSON form. words: at least one.
json_writer json_writer_of(const std::vector<std::string>& words);

// Returns such a line for one host of many, with "host" as the first member. line is empty when no answer has come.
// error is empty for a command that succeeded.
std::string host_json(const std::string& host, const std::string& line, const std::string& error);
