#include "util/regular_file.h"

#include <cerrno>
#include <fcntl.h>

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
    struct stat info {};
    if (file && (fstat(file.get(), &info) != 0 || !check_regular(info))) {
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
