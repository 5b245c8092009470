#include "agent/channel.h"

#include "protocol/limits.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <poll.h>
#include <sys/socket.h>

using frame_size = std::uint32_t;  // precedes each frame

short channel::events() const { return static_cast<short>(out_.empty() ? POLLIN : POLLIN | POLLOUT); }

void channel::send_frame(const json& frame) {
    std::string bytes;
    json::to_cbor(frame, bytes);
    const auto size = static_cast<frame_size>(bytes.size());
    out_.add({reinterpret_cast<const char*>(&size), sizeof size});
    out_.add(bytes);
    send_waiting();
}

void channel::send_waiting() {
    const std::string_view bytes = out_.front();
    const ssize_t n = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN) {
        out_.pop(bytes.size());
        shutdown(fd(), SHUT_WR);  // a part of a frame may have been sent, so nothing may follow it
    } else if (n > 0) {
        out_.pop(static_cast<std::size_t>(n));
    }
}

void channel::flush() {
    pollfd ready{fd(), POLLOUT, 0};
    constexpr auto limit = std::chrono::duration_cast<std::chrono::milliseconds>(close_timeout).count();
    while (!out_.empty() && poll(&ready, 1, limit) > 0) {
        send_waiting();
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
        in_.add({bytes, static_cast<std::size_t>(n)});
        return true;
    }
    return n < 0 && errno == EAGAIN;
}

std::optional<nlohmann::json> channel::next() {
    frame_size size = 0;
    if (in_.size() < sizeof size) {
        return std::nullopt;
    }
    std::memcpy(&size, in_.front().data(), sizeof size);
    if (in_.size() - sizeof size < size) {
        return std::nullopt;
    }
    json frame = json::from_cbor(in_.front().substr(sizeof size, size));
    in_.pop(sizeof size + size);
    return frame;
}

bool wait_for(int fd, short events, std::span<pollfd> others, std::chrono::steady_clock::time_point until) {
    std::vector<pollfd> polled(others.begin(), others.end());
    polled.push_back({fd, events, 0});
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - std::chrono::steady_clock::now());
    const auto limit = std::clamp<decltype(left.count())>(left.count(), 0, std::numeric_limits<int>::max());
    // It fails only when memory is short. Then no event is reported, and the caller calls again.
    poll(polled.data(), polled.size(), static_cast<int>(limit));
    std::copy_n(polled.begin(), others.size(), others.begin());
    return polled.back().revents != 0;
}
