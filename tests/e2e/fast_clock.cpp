// Loaded into the daemon before the C library: a wall clock of its own. $FAST_CLOCK names a file with "REAL SHOWN SPEED":
// at the moment REAL the clock shows SHOWN (seconds since 1970), and it runs SPEED times as fast. What the daemon waits
// for comes that much sooner. With $FAST_MONOTONIC the clock of its time limits runs as fast.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

struct Setting {
    double real = 0;
    double shown = 0;
    double speed = 1;
};

Setting setting() {
    Setting result;
    const char* path = std::getenv("FAST_CLOCK");
    FILE* file = path != nullptr ? std::fopen(path, "re") : nullptr;
    if (file == nullptr) return result;
    if (std::fscanf(file, "%lf %lf %lf", &result.real, &result.shown, &result.speed) != 3) result = {};
    std::fclose(file);
    return result;
}

// The next function of this name: a sanitizer's, which must know of what waits, or the C library's.
template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

timespec to_timespec(double seconds) {
    const double whole = std::floor(seconds);
    return {static_cast<std::time_t>(whole), static_cast<long>((seconds - whole) * 1e9)};
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
    const long result = syscall(SYS_clock_gettime, clock, now);
    const double seconds = static_cast<double>(now->tv_sec) + static_cast<double>(now->tv_nsec) / 1e9;
    if (clock == CLOCK_REALTIME) {
        const Setting set = setting();
        *now = to_timespec(set.shown + (seconds - set.real) * set.speed);
    } else if (clock == CLOCK_MONOTONIC && std::getenv("FAST_MONOTONIC") != nullptr) {
        *now = to_timespec(seconds * setting().speed);
    }
    return static_cast<int>(result);
}

extern "C" int nanosleep(const timespec* wanted, timespec* left) {
    const double seconds = static_cast<double>(wanted->tv_sec) + static_cast<double>(wanted->tv_nsec) / 1e9;
    const timespec shorter = to_timespec(seconds / setting().speed);
    return next<decltype(nanosleep)>("nanosleep")(&shorter, left);
}

extern "C" int poll(pollfd* files, nfds_t count, int ms) {
    if (ms > 0 && std::getenv("FAST_MONOTONIC") != nullptr) ms = static_cast<int>(std::ceil(ms / setting().speed));
    return next<decltype(poll)>("poll")(files, count, ms);
}
