#include "util/regular_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/sysmacros.h>

namespace {

// Linux gives the null device these numbers for good.
bool is_null_device(const struct stat& info) { return S_ISCHR(info.st_mode) && info.st_rdev == makedev(1, 3); }

bool check_opened(int file, int flags) {
    struct stat info {};
    return fstat(file, &info) == 0 &&
           (((flags & O_ACCMODE) == O_RDONLY && is_null_device(info)) || check_regular(info));
}

}  // namespace

bool check_regular(const struct stat& info) {
    if (S_ISREG(info.st_mode)) {
        return true;
    }
    errno = S_ISDIR(info.st_mode) ? EISDIR : ENXIO;
    return false;
}

unique_fd open_regular(const char* path, int flags, mode_t mode) {
    // O_NONBLOCK has no effect on a regular file. O_NOCTTY: a terminal must not become our controlling terminal before
    // it is refused.
    unique_fd file(open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
    if (file && !check_opened(file.get(), flags)) {
        const int error = errno;
        file.reset();
        errno = error;
    }
    return file;
}

unique_file open_regular_for_reading(const char* path) {
    unique_fd file = open_regular(path, O_RDONLY);
    if (!file) {
        return nullptr;
    }
    unique_file stream(fdopen(file.get(), "r"));
    if (stream != nullptr) {
        file.release();
    }
    return stream;
}
