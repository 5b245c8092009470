// A lock between processes: a file that one of them holds locked. It ends with the last process that has it open,
// so a child that was forked while it was held keeps it.
#pragma once

#include <chrono>
#include <string>

namespace client {

class file_lock {
public:
    // Waits until the lock is had. Without the file, as when the disk is full, there is no lock.
    explicit file_lock(const std::string& path);

    // Tries for so long; held() tells whether it succeeded.
    file_lock(const std::string& path, std::chrono::steady_clock::time_point until);

    ~file_lock();
    file_lock(const file_lock&) = delete;
    file_lock& operator=(const file_lock&) = delete;

    bool held() const { return held_; }

    // Whether the lock file is there or can be made; problem says why not.
    static bool can_open(const std::string& path, std::string& problem);

private:
    int fd_;
    bool held_ = false;
};

}  // namespace client
