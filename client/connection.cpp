#include "connection.h"

#include "signals.h"

#include <arpa/inet.h>
#include <cerrno>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

constexpr unsigned connect_timeout = 10;  // seconds, when the operator names none
constexpr std::size_t receive_size = 65536;

bool bind_source(int fd, const std::string& source) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    if (inet_pton(AF_INET, source.c_str(), &local.sin_addr) != 1) {
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

wake connection::open(std::string& error) {
    // Once only: a view that is drawn must neither hang in the resolver nor be killed there.
    if (found_ == nullptr) {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        hints.ai_socktype = SOCK_STREAM;
        const std::string port = std::to_string(where_.port);
        const signals_through through;  // nothing else ends a slow resolver
        const int result = getaddrinfo(where_.host.c_str(), port.c_str(), &hints, &found_);
        if (result != 0) {
            error = where_.host + ": " + gai_strerror(result);
            return wake::time;
        }
    }
    wake woken = wake::time;
    for (const addrinfo* a = found_; a != nullptr && woken == wake::time; a = a->ai_next) {
        woken = connect_to(a->ai_addr, a->ai_addrlen, error);
        if (woken != wake::input) {
            close();
        }
    }
    return woken;
}

wake connection::connect_to(const void* address, unsigned length, std::string& error) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd_ >= 0 && !where_.source.empty() && !bind_source(fd_, where_.source)) {
        error = where_.source + ": " + std::generic_category().message(errno);
        return wake::time;
    }
    int problem = 0;
    if (fd_ < 0 || connect(fd_, static_cast<const sockaddr*>(address), length) != 0) {
        problem = errno;
    }
    if (problem == EINPROGRESS) {
        const wake woken = wait_for(POLLOUT, where_.timeout != 0 ? where_.timeout : connect_timeout);
        if (woken == wake::stopped) {
            return woken;
        }
        socklen_t size = sizeof problem;
        if (woken == wake::time) {
            problem = ETIMEDOUT;
        } else {
            getsockopt(fd_, SOL_SOCKET, SO_ERROR, &problem, &size);
        }
    }
    if (problem != 0) {
        error = where_.host + " port " + std::to_string(where_.port) + ": " +
                std::generic_category().message(problem);
        return wake::time;
    }
    const int on = 1;
    const timeval patience{connect_timeout, 0};
    // A dead host must end a wait without a limit, and a stuck one a send.
    setsockopt(fd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
    return wake::input;
}

void connection::close() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = -1;
}

bool connection::send_line(std::string_view line) {
    const std::string bytes = std::string(line) + '\r';
    std::string_view rest = bytes;
    while (!rest.empty()) {
        const ssize_t n = send(fd_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR) {
            return false;
        }
        if (n > 0) {
            rest.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    return true;
}

wake connection::wait() {
    return wait_for(POLLIN, where_.timeout);
}

wake connection::wait_for(short events, unsigned seconds) {
    pollfd ready[] = {{fd_, events, 0}, {signals_ != nullptr ? signals_->fd() : -1, POLLIN, 0}};
    for (;;) {
        const int count = poll(ready, 2, seconds != 0 ? static_cast<int>(seconds) * 1000 : -1);
        if (count == 0) {
            return wake::time;
        }
        if (count < 0) {
            continue;  // only a signal that the process handles elsewhere
        }
        if (signals_ != nullptr && ready[1].revents != 0 && signals_->take()) {
            return wake::stopped;
        }
        if (ready[0].revents != 0) {
            return wake::input;
        }
    }
}

std::string_view connection::receive() {
    buffer_.resize(receive_size);
    ssize_t n = 0;
    do {
        n = recv(fd_, buffer_.data(), buffer_.size(), 0);
    } while (n < 0 && errno == EINTR);
    return {buffer_.data(), n > 0 ? static_cast<std::size_t>(n) : 0};
}

}  // namespace client
