// The request lines of one connection.
#pragma once

#include <cstddef>
#include <string_view>

constexpr int line_max = 16384;  // bytes of a request line, its NUL included

// Reads lines from a socket that it does not own. It receives more than one line at a time, so no other code may
// read from that socket. Used by one thread.
class line_reader {
public:
    explicit line_reader(int soc) : soc_(soc) {}

    // Reads one request line, ended by CR, into buf of size bytes. Drops LF and NUL. Returns the number of characters
    // stored: size - 1 when the line is longer (the rest is the next line), -1 when the connection ended and nothing
    // was read. The text always ends with NUL. Waits without limit.
    int read_line(char* buf, int size);

    // Returns true when the next line is this text and has arrived completely. Behind a line that came alone, it does
    // not look for more. Takes nothing from the buffer and never waits.
    bool is_next_line(std::string_view text);

private:
    bool fill();
    void add_arrived();

    int soc_;
    std::size_t next_ = 0;  // first byte not yet taken
    std::size_t end_ = 0;   // one past the last byte received
    int lines_ = 0;         // taken since the last wait for bytes
    char received_[4096];   // not initialised, so that unused pages cost no memory
};
