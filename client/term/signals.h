// Signals as readable events. The session and the live view wait for the network, the keyboard and signals at once, and
// a signal that comes just before the wait must not be lost.
#pragma once

#include "term/descriptor.h"

#include <csignal>
#include <functional>

// Blocks SIGINT, SIGTERM, SIGHUP and SIGWINCH while it exists and makes them readable. Only one may exist at a time.
class signal_watch {
public:
    // suspend: watches SIGTSTP too, and calls this instead of stopping the process.
    explicit signal_watch(std::function<void()> suspend = nullptr);
    ~signal_watch();

    int fd() const { return fd_.get(); }

    // Handles the signals that have come. Returns true when the wait must end: after SIGINT, or when leaving().
    bool take();

    // True after SIGTERM or SIGHUP.
    bool leaving() const { return leaving_; }

    // True when SIGWINCH came since the last call.
    bool resized() { return std::exchange(resized_, false); }

private:
    std::function<void()> suspend_;
    sigset_t before_;
    descriptor fd_;
    bool leaving_ = false;
    bool resized_ = false;
};

// Calls action while the watched signals have their usual effect, for a prompt that handles them itself.
void with_usual_signals(const std::function<void()>& action);
