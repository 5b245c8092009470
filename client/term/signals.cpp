#include "term/signals.h"

#include "term/text.h"

#include <cerrno>
#include <climits>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

sigset_t watched() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP}) {
        struct sigaction usual {};
        // What the parent ignores, such as nohup, stays ignored; a blocked signal would be readable all the same.
        if (sigaction(signo, nullptr, &usual) == 0 && usual.sa_handler != SIG_IGN) {
            sigaddset(&set, signo);
        }
    }
    return set;
}

}  // namespace

signal_watch::signal_watch(std::function<void()> suspend) : suspend_(std::move(suspend)) {
    sigset_t set = watched();
    if (suspend_ == nullptr) {
        sigdelset(&set, SIGTSTP);
    }
    sigprocmask(SIG_BLOCK, &set, &before_);
    fd_ = signal_fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0) {  // without a descriptor, let the signals have their usual effect
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
}

signal_watch::~signal_watch() {
    if (fd_ != signal_fd_) {
        close(fd_);
    }
    close(signal_fd_);
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

// Makes one descriptor for signals and the reader, so that callers poll only one.
void signal_watch::watch_reader_of(int descriptor) {
    const int both = epoll_create1(EPOLL_CLOEXEC);
    epoll_event signal_event{EPOLLIN, {}};
    epoll_event reader_event{0, {}};  // the system always reports that the reader has closed
    if (both < 0 || epoll_ctl(both, EPOLL_CTL_ADD, signal_fd_, &signal_event) != 0 ||
        epoll_ctl(both, EPOLL_CTL_ADD, descriptor, &reader_event) != 0) {  // fails for a file: no reader
        close(both);
        return;
    }
    fd_ = both;
    written_ = descriptor;
}

bool signal_watch::take() {
    bool stop = take_signals();
    pollfd reader{written_, 0, 0};
    if (written_ >= 0 && poll(&reader, 1, 0) > 0) {
        // Removed, or the descriptor would stay readable for ever.
        epoll_ctl(fd_, EPOLL_CTL_DEL, written_, nullptr);
        written_ = -1;
        leaving_ = true;
        stop = true;
    }
    return stop;
}

bool signal_watch::take_signals() {
    bool stop = false;
    signalfd_siginfo info;
    while (read(signal_fd_, &info, sizeof info) == sizeof info) {
        // SIGWINCH and SIGTSTP are handled here; only the other signals end the wait.
        if (info.ssi_signo == SIGWINCH) {
            resized_ = true;
            continue;
        }
        if (info.ssi_signo == SIGTSTP) {
            suspend_();
            continue;
        }
        stop = true;
        if (info.ssi_signo != SIGINT) {
            leaving_ = true;
        }
    }
    return stop;
}

bool signal_watch::resized() {
    return std::exchange(resized_, false);
}

bool write_until_signal(std::string_view text, signal_watch& signals) {
    while (!text.empty()) {
        pollfd ready[] = {{STDOUT_FILENO, POLLOUT, 0}, {signals.fd(), POLLIN, 0}};
        if (poll(ready, 2, -1) < 0) {
            continue;
        }
        if (ready[0].revents == 0) {
            if (signals.take()) {
                errno = EINTR;
                return false;
            }
            continue;
        }
        const std::string_view piece = text.substr(0, PIPE_BUF);  // what a pipe takes without waiting
        if (!write_all(STDOUT_FILENO, piece)) {
            return false;
        }
        text.remove_prefix(piece.size());
    }
    return true;
}

signals_through::signals_through() {
    const sigset_t set = watched();
    sigprocmask(SIG_UNBLOCK, &set, &before_);
}

signals_through::~signals_through() {
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace client
