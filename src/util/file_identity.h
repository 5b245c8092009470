// How to tell one version of a file from another.
#pragma once

#include <ctime>
#include <sys/stat.h>

// Two changes within one second differ in the nanoseconds or the size. A file that was moved over the old one has
// another inode. All zeros: no file.
struct file_identity {
    std::time_t seconds = 0;  // modification time
    long nanoseconds = 0;     // and its fraction
    off_t size = 0;
    ino_t inode = 0;

    bool operator==(const file_identity&) const = default;
};

inline file_identity identity_of(const struct stat& info) {
    return {info.st_mtim.tv_sec, info.st_mtim.tv_nsec, info.st_size, info.st_ino};
}
