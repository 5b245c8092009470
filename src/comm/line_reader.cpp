#include "comm/line_reader.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

int line_reader::read_line(char* buf, int size) {
    int stored = 0;
    bool ended = false;
    while (!ended && stored < size - 1 && (next_ < end_ || fill())) {
        const char byte = received_[next_++];
        ended = byte == '\r';
        lines_ += ended ? 1 : 0;
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
    lines_ = 0;
    end_ = got > 0 ? static_cast<std::size_t>(got) : 0;
    return got > 0;
}

bool line_reader::is_next_line(std::string_view text) {
    // A line that came alone is carried out at once, so more has hardly arrived: receiving again would cost each caller
    // a system call. Behind other lines it may have waited, for a module for instance.
    const bool came_alone = lines_ == 1 && next_ == end_ && end_ < sizeof received_;
    if (!came_alone && std::find(received_ + next_, received_ + end_, '\r') == received_ + end_) {
        add_arrived();
    }
    std::size_t matched = 0;
    for (std::size_t i = next_; i < end_; ++i) {
        const char byte = received_[i];
        if (byte == '\r') {
            return matched == text.size();
        }
        if (byte == '\0' || byte == '\n') {
            continue;
        }
        if (matched == text.size() || byte != text[matched]) {
            return false;
        }
        ++matched;
    }
    return false;
}

// Receives what has arrived, as far as it fits behind the bytes not yet taken. An end is seen again by fill.
void line_reader::add_arrived() {
    std::copy(received_ + next_, received_ + end_, received_);
    end_ -= next_;
    next_ = 0;
    if (end_ < sizeof received_) {
        const ssize_t got = recv(soc_, received_ + end_, sizeof received_ - end_, MSG_DONTWAIT);
        end_ += got > 0 ? static_cast<std::size_t>(got) : 0;
    }
}
