// The request lines of one connection.
#pragma once

#include <cstddef>

constexpr int line_max = 16384;  // bytes of a request line, its NUL included

// Takes lines from a socket that it does not own. It receives ahead, so nobody else may read from that socket until
// the connection is closed. Used by one thread.
class line_reader {
public:
    explicit line_reader(int soc) : soc_(soc) {}

    // Reads one request line, ended by CR, into buf of size bytes; LF and NUL are dropped. Returns the number of
    // characters stored, size - 1 when the line is longer (the rest is the next line), -1 when the connection ended
    // with nothing read. The text is always NUL-terminated. Waits as long as nothing comes.
    int read_line(char* buf, int size);

private:
    bool fill();

    int soc_;
    std::size_t next_ = 0;  // first byte not yet taken
    std::size_t end_ = 0;   // behind the last byte received
    char received_[4096];   // not initialised, so that pages without data stay untouched
};
