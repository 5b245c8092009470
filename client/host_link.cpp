#include "host_link.h"

#include "options.h"
#include "words.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

constexpr unsigned usual_limit = 10;  // seconds, when the operator sets none
// A silent connection is probed every 10 s; 40 s without an acknowledgement end it.
constexpr int probe_seconds = 10;
constexpr unsigned dead_milliseconds = 40000;
constexpr std::size_t receive_size = 65536;

std::string text_of(int error) {
    return std::generic_category().message(error);
}

// Starts connecting. Returns 0 when connected, EINPROGRESS while connecting goes on, else the error number.
int begin_connection(int fd, in_addr address, std::uint16_t port, const std::string& source) {
    sockaddr_in end{};
    end.sin_family = AF_INET;
    if (!source.empty()) {
        if (inet_pton(AF_INET, source.c_str(), &end.sin_addr) != 1) {
            return EINVAL;
        }
        if (bind(fd, reinterpret_cast<const sockaddr*>(&end), sizeof end) != 0) {
            return errno;
        }
    }
    end.sin_addr = address;
    end.sin_port = htons(port);
    return connect(fd, reinterpret_cast<const sockaddr*>(&end), sizeof end) == 0 ? 0 : errno;
}

}  // namespace

void host_link::ask(const std::vector<std::string>& words, std::string_view more) {
    const bool is_open = state_ == state::idle;
    // The greeting is needed once for each connection.
    talk_.emplace(words, is_open ? "" : settings_.user, where_.name, password_);
    daemon_answers_ = is_answered_at_once(words[0]);
    requests_.clear();
    end_.reset();
    next_address_ = 0;
    // This limit covers look-up, connecting and, for a command that the scheduler answers itself, the answer.
    deadline_ = clock::now() +
                std::chrono::seconds(settings_.where.timeout != 0 ? settings_.where.timeout : usual_limit);
    if (is_open) {
        state_ = state::talking;
        talk_->begin(requests_);
        requests_ += more;
        send_requests();
        return;
    }
    // An address needs no look-up in another thread.
    if (addresses_.empty()) {
        addresses_ = name_lookup::numeric(where_.name);
    }
    if (addresses_.empty()) {
        state_ = state::resolving;
    } else {
        connect_next();
    }
}

farewell host_link::take_leave() {
    if (state_ == state::talking) {
        return farewell::later;
    }
    if (state_ == state::idle) {
        ask({"status"}, "quit\r");
    }
    return state_ == state::talking ? farewell::asked : farewell::impossible;
}

void host_link::take(lookup_result found) {
    // The command may have been given up before its look-up was done.
    if (state_ != state::resolving) {
        return;
    }
    addresses_ = std::move(found.addresses);
    if (addresses_.empty()) {
        give_up({ending::closed, found.problem});
    } else {
        connect_next();
    }
}

// Tries the next address of the host, until one is connected or connecting. None left: the command has failed.
void host_link::connect_next() {
    state_ = state::connecting;
    int problem = 0;
    while (next_address_ < addresses_.size()) {
        close_descriptor();
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        problem = fd_ < 0
                      ? errno
                      : begin_connection(fd_, addresses_[next_address_], where_.port, settings_.where.source);
        ++next_address_;
        if (problem == 0) {
            return connected();
        }
        if (problem == EINPROGRESS) {
            return;
        }
    }
    give_up({ending::closed, text_of(problem)});
}

void host_link::connected() {
    // A dead host must end a wait without a limit; the system of one that is only stalled still answers.
    const int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd_, IPPROTO_TCP, TCP_KEEPIDLE, &probe_seconds, sizeof probe_seconds);
    setsockopt(fd_, IPPROTO_TCP, TCP_KEEPINTVL, &probe_seconds, sizeof probe_seconds);
    setsockopt(fd_, IPPROTO_TCP, TCP_USER_TIMEOUT, &dead_milliseconds, sizeof dead_milliseconds);
    state_ = state::talking;
    served_ = false;
    talk_->begin(requests_);
    send_requests();
}

// A command that the scheduler answers itself has one limit for all of it. A module has no limit, or the operator's
// time-out for the time without a byte; sending a request is always limited.
void host_link::set_deadline() {
    if (daemon_answers_) {
        return;
    }
    unsigned seconds = settings_.where.timeout;
    if (seconds == 0 && !requests_.empty()) {
        seconds = usual_limit;
    }
    deadline_ = seconds != 0 ? clock::now() + std::chrono::seconds(seconds) : clock::time_point::max();
}

// Sends as much as the socket takes; the rest waits until it is writable.
void host_link::send_requests() {
    while (!requests_.empty()) {
        const ssize_t n = send(fd_, requests_.data(), requests_.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && errno != EAGAIN) {
            requests_.clear();  // the peer has closed; read the bytes that came before
        }
        if (n < 0) {
            break;
        }
        requests_.erase(0, static_cast<std::size_t>(n));
    }
    set_deadline();
}

short host_link::events() const {
    if (state_ == state::connecting) {
        return POLLOUT;
    }
    // Reading goes on while a request waits, so that the two sides cannot block each other.
    return static_cast<short>(requests_.empty() ? POLLIN : POLLIN | POLLOUT);
}

void host_link::ready(std::string& output) {
    if (state_ == state::connecting) {
        int problem = 0;
        socklen_t size = sizeof problem;
        getsockopt(fd_, SOL_SOCKET, SO_ERROR, &problem, &size);
        if (problem == 0) {
            connected();
        } else if (next_address_ < addresses_.size()) {
            connect_next();
        } else {
            give_up({ending::closed, text_of(problem)});
        }
        return;
    }
    if (!requests_.empty()) {
        send_requests();
    }
    receive(output);
}

void host_link::receive(std::string& output) {
    // One receive for each event: other hosts must not wait for one that sends without a pause.
    char buffer[receive_size];
    const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    // No command runs: bytes are not expected and are dropped, but a closed connection must be reported.
    if (state_ == state::idle) {
        if (n <= 0) {
            give_up({ending::closed, why_closed(true)});
        }
        return;
    }
    if (n <= 0) {
        talk_->lost(served_);
        return give_up(talk_->end());
    }
    served_ = true;
    talk_->feed({buffer, static_cast<std::size_t>(n)}, output, requests_);
    if (!talk_->done()) {
        return send_requests();
    }
    const ending how = talk_->end().how;
    if (how != ending::over && how != ending::timeout && how != ending::busy && how != ending::unsupported) {
        return give_up(talk_->end());
    }
    end_ = talk_->end();
    state_ = state::idle;
    deadline_ = clock::time_point::max();
}

// Gives up at the deadline. The state tells what was waited for, and so the message.
void host_link::expire() {
    if (state_ == state::resolving) {
        give_up({ending::closed, "its name was not found in time"});
    } else if (state_ == state::connecting) {
        give_up({ending::closed, text_of(ETIMEDOUT)});
    } else if (!requests_.empty()) {
        give_up({ending::unsent, text_of(ETIMEDOUT)});
    } else {
        end_ = answer_end(ending::silent);
        deadline_ = clock::time_point::max();
    }
}

std::optional<answer_end> host_link::take_end() {
    return std::exchange(end_, std::nullopt);
}

void host_link::give_up(answer_end end) {
    close();
    end_ = std::move(end);
}

void host_link::close_descriptor() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
    fd_ = -1;
}

void host_link::close() {
    close_descriptor();
    state_ = state::closed;
    deadline_ = clock::time_point::max();
}

}  // namespace client
