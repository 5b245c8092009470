// A lock between processes, made of a locked file. The lock lasts until the last process has closed the file, so a
// child that was forked meanwhile keeps it too.
#pragma once

#include <chrono>
#include <string>

namespace client {

class file_lock {
public:
    // Waits until it has the lock. When the file cannot be created, as on a full disk, there is no lock.
    explicit file_lock(const std::string& path);

    // Tries until that time; held() then tells whether it has the lock.
    file_lock(const std::string& path, std::chrono::steady_clock::time_point until);

    ~file_lock();
    file_lock(const file_lock&) = delete;
    file_lock& operator=(const file_lock&) = delete;

    bool held() const { return held_; }

    // Returns true when the lock file exists or can be created; else problem gets the reason.
    static bool can_open(const std::string& path, std::string& problem);

private:
    int fd_;
    bool held_ = false;
};

}  // namespace client
