// Splits a text into lines.
#pragma once

#include <string>
#include <string_view>

namespace client {

// Calls read with each line of text, without its line feed.
template <typename reader>
void each_line(std::string_view text, reader read) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        read(std::string(text.substr(0, end)));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}

}  // namespace client
