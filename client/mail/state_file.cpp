#include "mail/state_file.h"

#include "mail/replace_file.h"
#include "mail/state_path.h"
#include "term/text.h"

#include <cerrno>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <utility>

namespace client {

namespace {

constexpr std::chrono::milliseconds retry_after{10};

// A FIFO must not block, and what is no regular file is not ours.
descriptor open_regular(const std::string& path, int flags) {
    descriptor file(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat info {};
    if (file.is_open() && (fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))) {
        file.reset();
        errno = EINVAL;
    } else if (file.is_open() && (flags & O_CREAT) != 0 && is_shared(directory_of(path))) {
        fchmod(file.get(), 0660);  // fails for a file of another user, which has its mode already
    }
    return file;
}

}  // namespace

state_file::state_file(std::string path, access how)
    : path_(std::move(path)), file_(open_regular(path_, static_cast<int>(how))) {}

bool state_file::lock(std::chrono::steady_clock::time_point until) {
    // flock has no time-out, so the lock is tried again and again.
    while (is_open() && flock(fd(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EINTR && std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(retry_after);
    }
    return is_open() && !is_removed();
}

bool state_file::is_removed() const {
    struct stat info {};
    return fstat(fd(), &info) != 0 || info.st_nlink == 0;
}

std::string state_file::read() const {
    std::string text;
    char piece[65536];
    ssize_t n = 0;
    while ((n = pread(fd(), piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
        text.append(piece, static_cast<std::size_t>(n));
    }
    return text;
}

bool state_file::write_at(std::uint64_t offset, std::string_view bytes) const {
    return lseek(fd(), static_cast<off_t>(offset), SEEK_SET) >= 0 && write_all(fd(), bytes);
}

bool state_file::reserve(std::uint64_t from, std::uint64_t to) const {
    errno = posix_fallocate(fd(), static_cast<off_t>(from), static_cast<off_t>(to - from));
    return errno == 0;
}

bool state_file::remove_dead() {
    if (flock(fd(), LOCK_SH | LOCK_NB) != 0) {
        return is_removed();
    }
    if (!is_removed()) {  // else the name may be that of a new file
        remove();         // of a process that was killed
    }
    return true;
}

void state_file::remove() {
    unlink(path_.c_str());
    *this = state_file();
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
