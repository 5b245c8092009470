// Text for output. Control characters in the texts of modules and messages must not control the terminal.
#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

// Makes a stream printable: line feeds, tabs and printable characters of the locale stay, carriage returns are dropped,
// any other byte becomes \xHH. A character may be split between two calls.
class printable_text {
public:
    std::string clean(std::string_view bytes);

private:
    std::string pending_;
};

// Waits for the descriptor to take bytes, at most so many milliseconds, and writes as much as it takes at once. Returns
// the number of bytes; 0 when it took none; -1 with errno.
ssize_t write_ready(int fd, std::string_view bytes, int milliseconds);

// Writes all bytes, however slowly their reader takes them. Returns false with errno when that fails; EINTR: a blocked
// signal tells the program to end.
bool write_all(int fd, std::string_view bytes);

// Returns one line of any text, made printable and cut to so many columns of the terminal.
std::string fit(std::string_view text, std::size_t columns = std::string::npos);

// Calls read with each line of text, without its line feed.
template <typename reader>
void each_line(std::string_view text, reader read) {
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        read(std::string(text.substr(0, end)));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
}
