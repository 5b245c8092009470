#include "agent/channel.h"

#include "protocol/limits.h"

#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

struct header {
    frame_kind kind;
    std::uint32_t host;
    std::uint32_t request;
    std::uint32_t size;  // of the body
};

template <typename value>
std::string packed(const value& v) {
    std::string body;
    nlohmann::json::to_cbor(nlohmann::json(v), body);
    return body;
}

template <typename value>
value unpacked(std::string_view body) {
    return nlohmann::json::from_cbor(body.begin(), body.end()).get<value>();
}

}  // namespace

// The text of a message may have any bytes: CBOR passes them on as they are.
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(message_totals, error, warning, info, lost)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_line, id, text)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(status_answer, lines, stored, complete, last, seconds, totals, unstored,
                                   notice)
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(command_result, how, code, signal, reason)

std::string pack(const std::vector<std::string>& words) {
    return packed(words);
}

std::string pack(const std::vector<std::uint64_t>& numbers) {
    return packed(numbers);
}

std::string pack(const status_answer& answer) {
    return packed(answer);
}

std::string pack(const command_result& end) {
    return packed(end);
}

std::vector<std::string> unpack_words(std::string_view body) {
    return unpacked<std::vector<std::string>>(body);
}

std::vector<std::uint64_t> unpack_numbers(std::string_view body) {
    return unpacked<std::vector<std::uint64_t>>(body);
}

status_answer unpack_status(std::string_view body) {
    return unpacked<status_answer>(body);
}

command_result unpack_result(std::string_view body) {
    return unpacked<command_result>(body);
}

channel::~channel() {
    close(fd_);
}

short channel::events() const {
    return static_cast<short>(out_.empty() ? POLLIN : POLLIN | POLLOUT);
}

void channel::send(const frame& one) {
    const header h{one.kind, one.host, one.request, static_cast<std::uint32_t>(one.body.size())};
    char bytes[sizeof h];
    std::memcpy(bytes, &h, sizeof h);
    try {
        out_.add({bytes, sizeof h});
        out_.add(one.body);
    } catch (const std::system_error&) {
        // No room for output that the other side has not read. Without it the other side cannot go on.
        is_gone_ = true;
        shutdown(fd_, SHUT_RDWR);
    }
    send_waiting();
}

void channel::send_waiting() {
    while (!out_.empty()) {
        const std::string_view bytes = out_.front();
        const ssize_t n = is_gone_ ? static_cast<ssize_t>(bytes.size())
                                   : ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EAGAIN) {
            return;
        }
        if (n < 0 && errno != EINTR) {
            is_gone_ = true;
        }
        if (n > 0) {
            out_.pop(static_cast<std::size_t>(n));
        }
    }
}

void channel::flush() {
    while (send_waiting(), !out_.empty()) {
        pollfd ready{fd_, POLLOUT, 0};
        poll(&ready, 1, -1);
    }
}

void channel::end() {
    flush();
    shutdown(fd_, SHUT_WR);
}

bool channel::update() {
    send_waiting();
    char bytes[receive_size];
    const ssize_t n = recv(fd_, bytes, sizeof bytes, MSG_DONTWAIT);
    if (n > 0) {
        in_.erase(0, std::exchange(read_, 0));
        in_.append(bytes, static_cast<std::size_t>(n));
        return true;
    }
    return n < 0 && (errno == EAGAIN || errno == EINTR);
}

std::optional<frame> channel::next() {
    header h{};
    if (in_.size() - read_ < sizeof h) {
        return std::nullopt;
    }
    std::memcpy(&h, in_.data() + read_, sizeof h);
    if (in_.size() - read_ - sizeof h < h.size) {
        return std::nullopt;
    }
    frame one{h.kind, h.host, h.request, in_.substr(read_ + sizeof h, h.size)};
    read_ += sizeof h + h.size;
    return one;
}

}  // namespace client
