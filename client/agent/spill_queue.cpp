#include "agent/spill_queue.h"

#include "protocol/limits.h"
#include "term/text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>

namespace client {

namespace {

constexpr std::size_t kept_in_memory = 256 * 1024;

[[noreturn]] void fail() {
    throw std::system_error(errno, std::generic_category(), "output that waits cannot be stored");
}

}  // namespace

void spill_queue::add(std::string_view text) {
    if (in_file_ == 0 && front_.size() - popped_ + text.size() <= kept_in_memory) {
        front_.erase(0, std::exchange(popped_, 0));
        front_ += text;
        return;
    }
    if (!file_.is_open()) {
        const char* directory = std::getenv("TMPDIR");
        std::string path = std::string(directory != nullptr ? directory : "/tmp") + "/schedctl.XXXXXX";
        file_.reset(mkostemp(path.data(), O_CLOEXEC));
        if (file_.is_open()) {
            unlink(path.c_str());  // O_TMPFILE would need no name, but not every file system has it
        }
    }
    if (!file_.is_open() || !write_all(file_.get(), text)) {
        fail();
    }
    in_file_ += text.size();
}

std::string_view spill_queue::front() {
    if (front_.empty() && in_file_ != 0) {
        front_.resize(std::min(receive_size, in_file_));
        const ssize_t n = pread(file_.get(), front_.data(), front_.size(), read_);
        if (n <= 0) {
            fail();
        }
        front_.resize(static_cast<std::size_t>(n));
        in_file_ -= front_.size();
        read_ += n;
        if (in_file_ == 0) {
            file_.reset();  // frees its disk space
            read_ = 0;
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
