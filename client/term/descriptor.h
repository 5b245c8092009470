// Owns a file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

class descriptor {
public:
    // fd: -1 for none, as the system's calls return it.
    explicit descriptor(int fd = -1) : fd_(fd) {}
    ~descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }

    int get() const { return fd_; }
    bool is_open() const { return fd_ >= 0; }
    // The old one is closed at once.
    void reset(int fd = -1) { descriptor(std::exchange(fd_, fd)); }

private:
    int fd_;
};
