#include "connection.h"

#include "signals.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

constexpr unsigned connect_timeout = 10;  // seconds, when the operator sets none
constexpr std::size_t receive_size = 65536;

bool bind_source(int fd, const std::string& source) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    if (inet_pton(AF_INET, source.c_str(), &local.sin_addr) != 1) {
        // inet_pton sets no errno for a text that is not an address.
        errno = EINVAL;
        return false;
    }
    return bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0;
}

}  // namespace

connection::~connection() {
    close();
    if (found_ != nullptr) {
        freeaddrinfo(found_);
    }
}

opened connection::open(std::string& error) {
    // Looked up only once: while a view is drawn, the program must not hang in the resolver or be killed there.
    if (found_ == nullptr) {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        const std::string port = std::to_string(where_.port);
        const signals_through through;  // so that Ctrl-C can end a slow look-up
        const int result = getaddrinfo(where_.host.c_str(), port.c_str(), &hints, &found_);
        if (result != 0) {
            error = where_.host + ": " + gai_strerror(result);
            return opened::failed;
        }
    }
    opened result = opened::failed;
    for (const addrinfo* a = found_; a != nullptr && result == opened::failed; a = a->ai_next) {
        result = connect_to(a->ai_addr, a->ai_addrlen, error);
        if (result != opened::connected) {
            close();
        }
    }
    return result;
}

opened connection::connect_to(const void* address, unsigned length, std::string& error) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ >= 0 && !where_.source.empty() && !bind_source(fd_, where_.source)) {
        error = where_.source + ": " + std::generic_category().message(errno);
        return opened::failed;
    }
    int problem = 0;
    if (fd_ < 0 || connect(fd_, static_cast<const sockaddr*>(address), length) != 0) {
        problem = errno;
    }
    if (problem == EINPROGRESS && finish_connecting(problem) == opened::stopped) {
        return opened::stopped;
    }
    if (problem != 0) {
        error = where_.host + " port " + std::to_string(where_.port) + ": " +
                std::generic_category().message(problem);
        return opened::failed;
    }
    const int on = 1;
    const timeval patience{connect_timeout, 0};
    // Without a time-out, only keep-alive ends the wait for a host that is down. The send time-out ends a blocked send.
    setsockopt(fd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    // Only connecting needs a non-blocking socket: a send has its time-out, and a receive follows poll.
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
    return opened::connected;
}

// Waits until connecting is complete. problem gets 0 or the error number of the failure.
opened connection::finish_connecting(int& problem) {
    socklen_t size = sizeof problem;
    switch (wait_for(POLLOUT, where_.timeout != 0 ? where_.timeout : connect_timeout)) {
        case wake::stopped:
            return opened::stopped;
        case wake::silent:
            problem = ETIMEDOUT;
            break;
        case wake::ready:
            getsockopt(fd_, SOL_SOCKET, SO_ERROR, &problem, &size);
            break;
    }
    return problem == 0 ? opened::connected : opened::failed;
}

void connection::close() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = -1;
}

sent connection::send_line(std::string_view line, std::string& error) {
    const std::string bytes = std::string(line) + '\r';
    std::string_view rest = bytes;
    while (!rest.empty()) {
        // No SIGPIPE: a closed connection is a result for the caller.
        const ssize_t n = send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (n < 0 && (errno == EPIPE || errno == ECONNRESET)) {
            return sent::closed;
        }
        if (n < 0 && errno != EINTR) {
            // The send time-out is reported as EAGAIN, whose usual text would confuse the operator.
            error = std::generic_category().message(errno == EAGAIN ? ETIMEDOUT : errno);
            return sent::failed;
        }
        if (n > 0) {
            rest.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    return sent::whole;
}

wake connection::wait() {
    return wait_for(POLLIN, where_.timeout);
}

wake connection::wait_for(short events, unsigned seconds) {
    using clock = std::chrono::steady_clock;
    const clock::time_point until = clock::now() + std::chrono::seconds(seconds);
    // poll ignores an entry with descriptor -1.
    pollfd ready[] = {{fd_, events, 0}, {signals_ != nullptr ? signals_->fd() : -1, POLLIN, 0}};
    for (;;) {
        // Waits only for the remaining time: a window that is resized repeatedly must not prolong the wait.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(until - clock::now()).count();
        const int count = poll(ready, 2, seconds != 0 ? static_cast<int>(std::max<long>(left, 0)) : -1);
        if (count == 0) {
            return wake::silent;
        }
        if (count < 0) {
            continue;  // interrupted by a signal that other code handles
        }
        // Signals first, so that the operator can stop an answer that comes without a pause.
        if (signals_ != nullptr && ready[1].revents != 0 && signals_->take()) {
            return wake::stopped;
        }
        if (ready[0].revents != 0) {
            return wake::ready;
        }
    }
}

std::string_view connection::receive() {
    buffer_.resize(receive_size);
    ssize_t n = 0;
    do {
        n = recv(fd_, buffer_.data(), buffer_.size(), 0);
    } while (n < 0 && errno == EINTR);
    // After an error, such as a reset, no more bytes come; it counts as the end of the connection.
    return {buffer_.data(), n > 0 ? static_cast<std::size_t>(n) : 0};
}

}  // namespace client
