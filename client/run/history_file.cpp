#include "run/history_file.h"

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace client {

namespace {

using namespace std::chrono_literals;

constexpr int lock_tries = 100;  // one second in all
constexpr auto lock_pause = 10ms;

struct closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using open_file = std::unique_ptr<std::FILE, closer>;

// Waits for the lock for a limited time, because a session that is stopped (Ctrl-Z) while it ends keeps it.
bool lock(int fd, int operation) {
    for (int i = 0; i < lock_tries; ++i) {
        if (flock(fd, operation | LOCK_NB) == 0) {
            return true;
        }
        std::this_thread::sleep_for(lock_pause);
    }
    return false;
}

// Returns the locked file, or null when it cannot be used. Closing it releases the lock.
open_file open_locked(const std::string& path, int flags, int operation) {
    // O_NONBLOCK: a FIFO in place of the file must not block the session.
    const int fd = path.empty() ? -1 : open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, 0600);
    if (fd < 0) {
        return nullptr;
    }
    struct stat info {};
    open_file file(fdopen(fd, (flags & O_ACCMODE) == O_RDONLY ? "r" : "r+"));
    if (file == nullptr) {
        close(fd);
        return nullptr;
    }
    const bool usable = fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && lock(fd, operation);
    return usable ? std::move(file) : nullptr;
}

}  // namespace

void history_file::load(History* into) const {
    HistEvent event;
    if (const open_file file = open_locked(path_, O_RDONLY, LOCK_SH)) {
        history(into, &event, H_LOAD, path_.c_str());
    }
}

void history_file::append(History* lines) const {
    const open_file file = open_locked(path_, O_RDWR | O_CREAT, LOCK_EX);
    if (file == nullptr || std::fseek(file.get(), 0, SEEK_END) != 0) {
        return;
    }
    HistEvent event;
    // libedit begins a new file with a line that names the format.
    history(lines, &event, H_SAVE_FP, file.get());
    if (std::fflush(file.get()) != 0 || std::ftell(file.get()) <= longest_history_file) {
        return;
    }
    // The file is written again under the same lock and name: another session may wait for the lock of this file.
    History* newest = history_init();
    history(newest, &event, H_SETSIZE, history_size);
    history(newest, &event, H_LOAD, path_.c_str());
    std::rewind(file.get());
    if (ftruncate(fileno(file.get()), 0) == 0) {
        history(newest, &event, H_SAVE_FP, file.get());
    }
    history_end(newest);
}

}  // namespace client
