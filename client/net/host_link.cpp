#include "net/host_link.h"

#include "protocol/limits.h"
#include "protocol/login.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>

namespace {

std::string text_of(int error) { return std::generic_category().message(error); }

// Starts connecting. Returns 0 when connected, EINPROGRESS while connecting goes on, else the error number.
int begin_connection(int fd, in_addr address, std::uint16_t port, const std::string& source) {
    sockaddr_in end{};
    end.sin_family = AF_INET;
    // A source that is no address was refused before.
    if (!source.empty() && (inet_pton(AF_INET, source.c_str(), &end.sin_addr) != 1 ||
                            bind(fd, reinterpret_cast<const sockaddr*>(&end), sizeof end) != 0)) {
        return errno;
    }
    end.sin_addr = address;
    end.sin_port = htons(port);
    return connect(fd, reinterpret_cast<const sockaddr*>(&end), sizeof end) == 0 ? 0 : errno;
}

// A dead host must end a wait without a limit; the system of one that is only stalled still answers. A failure is
// ignored: the wait then lasts longer.
void detect_dead_peer(int fd) {
    const int on = 1;
    const auto probe = static_cast<int>(probe_interval.count());
    const auto dead = static_cast<unsigned>(std::chrono::milliseconds(dead_peer_timeout).count());
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPIDLE, &probe, sizeof probe);
    setsockopt(fd, IPPROTO_TCP, TCP_KEEPINTVL, &probe, sizeof probe);
    setsockopt(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, &dead, sizeof dead);
}

}  // namespace

std::string host_link::address() const {
    if (addresses_.empty()) {
        return "";
    }
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &addresses_[next_address_ > 0 ? next_address_ - 1 : 0], text, sizeof text);
    return text;
}

std::chrono::seconds host_link::limit() const {
    return how_.timeout != 0 ? std::chrono::seconds(how_.timeout) : default_timeout;
}

void host_link::ask(std::vector<std::string> words) {
    // The greeting is needed once for each connection.
    greets_ = !is_open() && !is_connecting() && !how_.user.empty();
    words_ = std::move(words);
    if (is_connecting()) {
        return;
    }
    requests_.clear();
    input_.clear();
    failed_ipset_.reset();
    took_long_ = logged_in_ = false;
    // This limit covers look-up, connecting and, for a command that the scheduler answers itself, the answer.
    deadline_ = clock::now() + limit();
    if (state_ == state::idle) {
        begin();
        return send_requests();
    }
    next_address_ = 0;
    in_addr address{};
    if (addresses_.empty() && inet_aton(where_.name.c_str(), &address) != 0) {
        addresses_ = {address};
    }
    if (!addresses_.empty()) {
        return connect_next();
    }
    state_ = state::resolving;
    try {
        lookup_ = lookup_ ? lookup_ : look_up(where_.name);
    } catch (const std::system_error& problem) {
        fail({outcome::closed, where_.name + ": " + problem.what()});
    }
}

void host_link::on_resolved(std::vector<in_addr> addresses, const std::string& problem) {
    addresses_ = std::move(addresses);
    if (state_ != state::resolving) {
        return;  // the command was given up; the next one uses the addresses
    }
    if (addresses_.empty()) {
        fail({outcome::closed, where_.name + ": " + problem});
    } else {
        connect_next();
    }
}

// Tries the next addresses of the host, until one is connected or connecting. When none is left, the command
// has failed. problem: the error of the address before, which is reported when none is left.
void host_link::connect_next(int problem) {
    state_ = state::connecting;
    while (next_address_ < addresses_.size()) {
        connecting_at_ = clock::now();
        socket_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        problem = fd() < 0 ? errno : begin_connection(fd(), addresses_[next_address_], where_.port, how_.source);
        ++next_address_;
        if (problem == 0) {
            return on_connected();
        }
        if (problem == EINPROGRESS) {
            return;
        }
    }
    const bool is_source = problem == EADDRNOTAVAIL && !how_.source.empty();
    fail({outcome::closed, (is_source ? how_.source + ": " : "") + text_of(problem)});
}

void host_link::on_connected() {
    detect_dead_peer(fd());
    connected_at_ = clock::now();
    received_any_ = needed_login_ = false;
    begin();
    send_requests();
}

// A command that the scheduler answers itself has one limit for all of it. A module has no limit, or the operator's
// time-out for the time without a byte; sending a request is always limited.
void host_link::set_deadline() {
    if (late_) {
        return;
    }
    const bool takes_long = may_take_long();
    if (needs_password()) {
        deadline_ = clock::time_point::max();
    } else if (takes_long) {
        std::chrono::seconds silence = how_.timeout != 0 ? limit() : module_silence_;
        if (silence.count() == 0 && !requests_.empty()) {
            silence = default_timeout;
        }
        deadline_ = silence.count() != 0 ? clock::now() + silence : clock::time_point::max();
    } else if (took_long_ || deadline_ == clock::time_point::max()) {
        deadline_ = clock::now() + limit();  // behind a greeting or the operator's typing of a password
    }
    took_long_ = takes_long;
}

// Sends as much as the socket takes; the rest waits until it is writable.
void host_link::send_requests() {
    while (!requests_.empty()) {
        const ssize_t n = send(fd(), requests_.data(), requests_.size(), MSG_NOSIGNAL);
        if (n < 0) {
            break;  // also when the peer has closed: on_ready() reads the bytes that came before
        }
        requests_.erase(0, static_cast<std::size_t>(n));
    }
    set_deadline();
}

void host_link::log_in(const std::string& no_password) {
    if (!no_password.empty()) {
        return fail({outcome::login_refused, no_password});
    }
    say(state::login);
    send_requests();
}

short host_link::events() const {
    if (state_ == state::connecting) {
        return POLLOUT;
    }
    // Reading goes on while a request waits, so that the two sides cannot block each other.
    return static_cast<short>(requests_.empty() ? POLLIN : POLLIN | POLLOUT);
}

void host_link::on_ready() {
    if (lookup_ && !lookup_->is_done) {
        return;
    }
    if (lookup_) {
        const std::shared_ptr<name_lookup> ended = std::exchange(lookup_, nullptr);
        return on_resolved(ended->addresses, ended->problem);
    }
    if (state_ == state::connecting) {
        int problem = 0;
        socklen_t size = sizeof problem;
        getsockopt(fd(), SOL_SOCKET, SO_ERROR, &problem, &size);
        return problem == 0 ? on_connected() : connect_next(problem);
    }
    if (!requests_.empty()) {
        send_requests();
    }
    // One receive for each event: other hosts must not wait for one that sends without a pause.
    char buffer[receive_size];
    const ssize_t n = recv(fd(), buffer, sizeof buffer, 0);
    if (n < 0 && errno == EAGAIN) {
        return;
    }
    if (n <= 0) {
        fail(reason_for_closing());
    } else if (is_busy()) {  // else the bytes are dropped
        on_received({buffer, static_cast<std::size_t>(n)});
    }
}

void host_link::on_received(std::string_view bytes) {
    received_any_ = true;
    received_ += bytes.size();
    input_ += bytes;
    while (is_busy() && !input_.empty() && !needs_password()) {
        std::string unwanted;  // of the greeting, the login and the probe
        const bool is_wanted = state_ == state::command || state_ == state::status;
        const std::optional<command_result> end = parser_.feed(input_, is_wanted ? news_.text : unwanted);
        if (!may_take_long() && received_ > max_answer) {
            return fail({outcome::bad_answer, "it is too long"});
        }
        if (!end) {
            break;
        }
        on_answer(*end);
    }
    if (is_busy()) {
        send_requests();
    }
}

// The end of the command.
void host_link::finish(command_result end) {
    if (end.how == outcome::busy && !is_final()) {
        end.reason = is("unlock") ? "this connection does not hold the lock" : "switched off or locked";
    }
    if (end.how != outcome::over && end.how != outcome::module_timeout && end.how != outcome::busy &&
        end.how != outcome::unsupported) {
        return fail(std::move(end));
    }
    news_.end = std::move(end);
    state_ = state::idle;
    late_ = false;
    deadline_ = clock::time_point::max();
}

// The state tells what was waited for, and so the message.
void host_link::expire() {
    if (state_ == state::resolving) {
        fail({outcome::closed, where_.name + ": the name was not found in time"});
    } else if (state_ == state::connecting) {
        fail({outcome::closed, text_of(ETIMEDOUT)});
    } else if (!requests_.empty()) {
        fail({outcome::unsent, text_of(ETIMEDOUT)});
    } else {
        late_ = true;
        deadline_ = clock::time_point::max();
        news_.end = outcome::no_answer;
    }
}

void host_link::fail(command_result end) {
    if (state_ == state::connecting) {
        addresses_.clear();  // the name may have another one by the next command
    }
    drop();
    news_.end = std::move(end);
}

void host_link::drop() {
    socket_.reset();
    state_ = state::closed;
    late_ = false;
    deadline_ = clock::time_point::max();
}
