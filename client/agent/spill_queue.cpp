#include "agent/spill_queue.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr std::size_t kept_in_memory = 256 * 1024;
constexpr std::size_t piece = 64 * 1024;

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category(), "output that waits cannot be stored");
}

int temporary_file() {
    const char* directory = std::getenv("TMPDIR");
    const int fd = open(directory != nullptr ? directory : "/tmp", O_RDWR | O_TMPFILE | O_CLOEXEC, 0600);
    if (fd < 0) {
        fail();
    }
    return fd;
}

}  // namespace

spill_queue::~spill_queue() {
    if (file_ >= 0) {
        close(file_);
    }
}

spill_queue::spill_queue(spill_queue&& other) noexcept
    : front_(std::move(other.front_)),
      popped_(std::exchange(other.popped_, 0)),
      file_(std::exchange(other.file_, -1)),
      file_read_(std::exchange(other.file_read_, 0)),
      file_written_(std::exchange(other.file_written_, 0)) {}

void spill_queue::add(std::string_view text) {
    if (file_read_ == file_written_ && front_.size() - popped_ + text.size() <= kept_in_memory) {
        front_.erase(0, std::exchange(popped_, 0));
        front_ += text;
        return;
    }
    if (file_ < 0) {
        file_ = temporary_file();
    }
    while (!text.empty()) {
        const ssize_t n = pwrite(file_, text.data(), text.size(), static_cast<off_t>(file_written_));
        if (n < 0 && errno != EINTR) {
            fail();
        }
        if (n > 0) {
            file_written_ += static_cast<std::uint64_t>(n);
            text.remove_prefix(static_cast<std::size_t>(n));
        }
    }
}

std::string_view spill_queue::front() {
    if (popped_ == front_.size() && file_read_ < file_written_) {
        // Behind the newest bytes the file may still have older ones.
        front_.resize(std::min<std::uint64_t>(piece, file_written_ - file_read_));
        popped_ = 0;
        const ssize_t n = pread(file_, front_.data(), front_.size(), static_cast<off_t>(file_read_));
        if (n <= 0) {
            fail();
        }
        front_.resize(static_cast<std::size_t>(n));
        file_read_ += static_cast<std::uint64_t>(n);
        if (file_read_ == file_written_) {
            file_read_ = file_written_ = 0;
        }
    }
    return std::string_view(front_).substr(popped_);
}

void spill_queue::pop(std::size_t bytes) {
    popped_ += bytes;
    if (popped_ == front_.size()) {
        front_.clear();
        popped_ = 0;
    }
}

}  // namespace client
