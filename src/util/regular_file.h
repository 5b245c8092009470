// Opening regular files only: a FIFO or a device in place of a file cannot block the daemon.
#pragma once

#include "util/unique_fd.h"

#include <cstdio>
#include <memory>
#include <sys/stat.h>

// Checks that a status is that of a regular file. False with errno for anything else: EISDIR for a directory, ENXIO
// for a FIFO, a socket or a device. Any thread.
bool check_regular(const struct stat& info);

// Opens path with flags and, for a file that is created, mode. The open never waits for the other end of a FIFO or
// for a device, and nothing but a regular file is taken: the reader of a FIFO gets no byte.
// Returns the descriptor, or an empty one with errno. Any thread.
unique_fd open_regular(const char* path, int flags, mode_t mode = 0);

struct file_closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using unique_file = std::unique_ptr<std::FILE, file_closer>;

// The same for reading through a stream. Null with errno when the file cannot be opened. Any thread.
unique_file open_regular_for_reading(const char* path);
