#include "term/signals.h"

#include <sys/signalfd.h>

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
    fd_.reset(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    if (!fd_.is_open()) {  // without a descriptor, let the signals have their usual effect
        sigprocmask(SIG_SETMASK, &before_, nullptr);
    }
}

signal_watch::~signal_watch() {
    // A signal that came at the end has done its work: the program ends.
    signalfd_siginfo info;
    while (read(fd(), &info, sizeof info) == sizeof info) {
    }
    sigprocmask(SIG_SETMASK, &before_, nullptr);
}

// SIGWINCH and SIGTSTP are handled here; only the other signals end the wait.
bool signal_watch::take() {
    bool stop = false;
    signalfd_siginfo info;
    while (read(fd(), &info, sizeof info) == sizeof info) {
        if (info.ssi_signo == SIGWINCH) {
            resized_ = true;
        } else if (info.ssi_signo == SIGTSTP) {
            suspend_();
        } else {
            stop = true;
            leaving_ = leaving_ || info.ssi_signo != SIGINT;
        }
    }
    return stop;
}

void with_usual_signals(const std::function<void()>& action) {
    const sigset_t set = watched();
    sigset_t before;
    sigprocmask(SIG_UNBLOCK, &set, &before);
    action();
    sigprocmask(SIG_SETMASK, &before, nullptr);
}
