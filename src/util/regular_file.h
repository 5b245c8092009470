// Opening regular files only: a FIFO or a device in place of a file cannot block the daemon. The null device may be read,
// as an empty file.
#pragma once

#include "util/unique_fd.h"

#include <cstdio>
#include <memory>
#include <sys/stat.h>

// Returns true for the status of a regular file. Returns false with errno for anything else: EISDIR for a directory,
// ENXIO for a FIFO, a socket or a device. Any thread.
bool check_regular(const struct stat& info);

// Opens path with flags and, for a file that is created, mode. Never waits for the other end of a FIFO or for a
// device. Refuses anything but a regular file, so no byte is written to a FIFO; for reading only, takes the null device
// too. The errno of a refusal is that of check_regular.
// Returns the descriptor, or an empty one with errno. Any thread.
unique_fd open_regular(const char* path, int flags, mode_t mode = 0);

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using unique_file = std::unique_ptr<std::FILE, file_closer>;

// The same for reading through a stream. Null with errno when the file cannot be opened. Any thread.
unique_file open_regular_for_reading(const char* path);
