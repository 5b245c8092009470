#include "file_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace client {

namespace {

constexpr std::chrono::milliseconds retry_after{20};  // short against the seconds of a visit

int open_lock(const std::string& path) {
    return open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
}

}  // namespace

file_lock::file_lock(const std::string& path) : fd_(open_lock(path)) {
    while (fd_ >= 0 && !held_) {
        held_ = flock(fd_, LOCK_EX) == 0;
        if (!held_ && errno != EINTR) {
            return;
        }
    }
}

// flock has no time-out, so the lock is tried again and again.
file_lock::file_lock(const std::string& path, std::chrono::steady_clock::time_point until)
    : fd_(open_lock(path)) {
    while (fd_ >= 0 && !held_) {
        held_ = flock(fd_, LOCK_EX | LOCK_NB) == 0;
        if (!held_ && std::chrono::steady_clock::now() >= until) {
            return;
        }
        if (!held_) {
            std::this_thread::sleep_for(retry_after);
        }
    }
}

file_lock::~file_lock() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool file_lock::can_open(const std::string& path, std::string& problem) {
    const int fd = open_lock(path);
    if (fd < 0) {
        problem = path + ": " + std::generic_category().message(errno);
        return false;
    }
    close(fd);
    return true;
}

}  // namespace client
