#include "comm/line_reader.h"

#include <cerrno>
#include <sys/socket.h>

int line_reader::read_line(char* buf, int size) {
    int stored = 0;
    bool ended = false;
    while (!ended && stored < size - 1 && (next_ < end_ || fill())) {
        const char byte = received_[next_++];
        ended = byte == '\r';
        if (!ended && byte != '\0' && byte != '\n') {
            buf[stored++] = byte;
        }
    }
    buf[stored] = '\0';
    return ended || stored > 0 ? stored : -1;
}

// Waits for bytes. Returns false when the connection has ended.
bool line_reader::fill() {
    ssize_t got = 0;
    do {
        got = recv(soc_, received_, sizeof received_, 0);
    } while (got < 0 && errno == EINTR);
    next_ = 0;
    end_ = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got > 0;
}
