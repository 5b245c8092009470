#include "mail/state_file.h"

#include "mail/state_path.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr std::chrono::milliseconds retry_after{10};

int flags_of(state_file::access how) {
    constexpr int create_new = O_RDWR | O_CREAT | O_EXCL;
    switch (how) {
        case state_file::access::read:
            return O_RDONLY;
        case state_file::access::update:
            return O_RDWR;
        case state_file::access::create:
        case state_file::access::create_new:
            break;
    }
    return create_new;
}

// A FIFO must not block, and what is no regular file is not ours.
int open_regular(const std::string& path, int flags) {
    const int fd = open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    struct stat info {};
    if (fd >= 0 && (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))) {
        close(fd);
        errno = EINVAL;
        return -1;
    }
    if (fd >= 0 && (flags & O_CREAT) != 0 && state_is_shared()) {
        fchmod(fd, 0660);  // the file is ours, so this cannot fail but on a strange file system
    }
    return fd;
}

}  // namespace

state_file::state_file(std::string path, access how) : path_(std::move(path)) {
    fd_ = open_regular(path_, flags_of(how));
    if (fd_ < 0 && how == access::create && errno == EEXIST) {
        fd_ = open_regular(path_, O_RDWR);
    }
    error_ = fd_ < 0 ? errno : 0;
}

state_file::~state_file() {
    if (fd_ >= 0) {
        close(fd_);
    }
}

state_file::state_file(state_file&& other) noexcept
    : path_(std::move(other.path_)), fd_(std::exchange(other.fd_, -1)), error_(other.error_) {}

state_file& state_file::operator=(state_file&& other) noexcept {
    std::swap(path_, other.path_);
    std::swap(fd_, other.fd_);
    std::swap(error_, other.error_);
    return *this;
}

bool state_file::lock(std::chrono::steady_clock::time_point until) {
    // flock has no time-out, so the lock is tried again and again.
    while (fd_ >= 0 && flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR && std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(retry_after);
    }
    struct stat info {};
    return fd_ >= 0 && fstat(fd_, &info) == 0 && info.st_nlink != 0;
}

std::string state_file::read() const {
    std::string text;
    char piece[65536];
    ssize_t n = 0;
    while ((n = pread(fd_, piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
        text.append(piece, static_cast<std::size_t>(n));
    }
    return text;
}

bool state_file::write_at(std::uint64_t offset, std::string_view bytes) const {
    while (!bytes.empty()) {
        const ssize_t n = pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        offset += static_cast<std::uint64_t>(n);
        bytes.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

bool state_file::reserve(std::uint64_t size) const {
    errno = posix_fallocate(fd_, 0, static_cast<off_t>(size));
    return errno == 0;
}

bool state_file::truncate(std::uint64_t size) const {
    return ftruncate(fd_, static_cast<off_t>(size)) == 0;
}

void state_file::remove() {
    unlink(path_.c_str());
    state_file none;
    std::swap(*this, none);
}

// By a second name: a rename would replace an existing file.
bool state_file::move_to(const std::string& path) {
    if (link(path_.c_str(), path.c_str()) != 0) {
        return false;
    }
    unlink(path_.c_str());
    path_ = path;
    return true;
}

std::optional<std::string> read_file(const std::string& path) {
    const state_file file(path, state_file::access::read);
    return file.is_open() ? std::optional(file.read()) : std::nullopt;
}

}  // namespace client
