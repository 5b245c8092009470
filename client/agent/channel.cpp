#include "agent/channel.h"

#include "protocol/limits.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>

namespace client {

using frame_size = std::uint32_t;  // precedes each frame

short channel::events() const {
    return static_cast<short>(out_.empty() ? POLLIN : POLLIN | POLLOUT);
}

void channel::send(std::string_view frame) {
    const auto size = static_cast<frame_size>(frame.size());
    try {
        out_.add({reinterpret_cast<const char*>(&size), sizeof size});
        out_.add(frame);
    } catch (const std::system_error&) {
        // No room for output that the other side has not read. Without it the other side cannot go on.
        is_gone_ = true;
        shutdown(fd(), SHUT_RDWR);
    }
    send_waiting();
}

void channel::send_waiting() {
    while (!is_gone_ && !out_.empty()) {
        const std::string_view bytes = out_.front();
        const ssize_t n = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            out_.pop(static_cast<std::size_t>(n));
        } else if (errno == EAGAIN) {
            return;
        } else if (errno != EINTR) {
            is_gone_ = true;
        }
    }
    if (is_gone_) {
        out_ = spill_queue();
    }
}

void channel::flush() {
    pollfd ready{fd(), POLLOUT, 0};
    auto limit = std::chrono::steady_clock::now() + close_timeout;
    while (send_waiting(), !out_.empty() && std::chrono::steady_clock::now() < limit) {
        if (poll(&ready, 1, 10) > 0) {
            limit = std::chrono::steady_clock::now() + close_timeout;  // it reads
        }
    }
}

void channel::end() {
    flush();
    shutdown(fd(), SHUT_WR);
}

bool channel::update() {
    send_waiting();
    char bytes[receive_size];
    const ssize_t n = recv(fd(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (n > 0) {
        in_.erase(0, std::exchange(read_, 0));
        in_.append(bytes, static_cast<std::size_t>(n));
        return true;
    }
    return n < 0 && (errno == EAGAIN || errno == EINTR);
}

std::optional<std::string> channel::next() {
    frame_size size = 0;
    if (in_.size() - read_ < sizeof size) {
        return std::nullopt;
    }
    std::memcpy(&size, in_.data() + read_, sizeof size);
    if (in_.size() - read_ - sizeof size < size) {
        return std::nullopt;
    }
    std::string frame = in_.substr(read_ + sizeof size, size);
    read_ += sizeof size + size;
    return frame;
}

}  // namespace client
