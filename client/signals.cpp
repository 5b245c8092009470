#include "signals.h"

#include <sys/signalfd.h>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

sigset_t watched() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGTSTP}) {
        sigaddset(&set, signo);
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
    fd_ = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
    if (fd_ < 0) {  // then they had better act as usual than not at all
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
}

signal_watch::~signal_watch() {
    close(fd_);
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

bool signal_watch::take() {
    bool stop = false;
    signalfd_siginfo info;
    while (read(fd_, &info, sizeof info) == sizeof info) {
        // A new size and a suspension are dealt with here; only the others end the wait.
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

signals_through::signals_through() {
    const sigset_t set = watched();
    sigprocmask(SIG_UNBLOCK, &set, &before_);
}

signals_through::~signals_through() {
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

}  // namespace client
