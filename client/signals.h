// Signals as readable events: the session and the live view wait for the network, the keyboard and signals at
// once, and a signal that came a moment before the wait must not be lost.
#pragma once

#include <csignal>
#include <functional>
#include <string_view>

namespace client {

// Blocks SIGINT, SIGTERM, SIGHUP and SIGWINCH for its lifetime and makes them readable. One at a time.
class signal_watch {
public:
    // suspend: watches SIGTSTP too, and does this instead of stopping the process.
    explicit signal_watch(std::function<void()> suspend = nullptr);
    ~signal_watch();
    signal_watch(const signal_watch&) = delete;
    signal_watch& operator=(const signal_watch&) = delete;

    int fd() const { return fd_; }

    // The end of the reader of this pipe or socket is from now on a wish to leave, also while nothing is written.
    void watch_reader_of(int descriptor);

    // Takes what has come. true when the operator wants the wait to end: SIGINT, or a wish to leave.
    bool take();

    // SIGTERM or SIGHUP came, or the watched reader has gone.
    bool leaving() const { return leaving_; }

    // SIGWINCH came since the last call.
    bool resized();

private:
    std::function<void()> suspend_;
    sigset_t before_;
    bool take_signals();

    int fd_ = -1;
    int signal_fd_ = -1;
    int written_ = -1;  // whose reader is watched
    bool leaving_ = false;
    bool resized_ = false;
};

// Writes all to standard output. Its reader may be slow, so a signal ends the waiting: then false with errno EINTR.
bool write_until_signal(std::string_view text, signal_watch& signals);

// Lets the watched signals through in the usual way while a prompt handles them itself.
class signals_through {
public:
    signals_through();
    ~signals_through();
    signals_through(const signals_through&) = delete;
    signals_through& operator=(const signals_through&) = delete;

private:
    sigset_t before_;
};

}  // namespace client
