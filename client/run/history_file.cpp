#include "run/history_file.h"

#include "mail/state_file.h"
#include "protocol/limits.h"

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace client {

void load_history(const std::string& path, History* into) {
    state_file file(path, state_file::access::read);
    HistEvent event;
    if (file.lock(std::chrono::steady_clock::now() + lock_timeout)) {
        history(into, &event, H_LOAD, path.c_str());
    }
}

void append_history(const std::string& path, History* lines) {
    state_file file(path, state_file::access::create);
    if (!file.lock(std::chrono::steady_clock::now() + lock_timeout)) {
        return;
    }
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(fdopen(dup(file.fd()), "r+"), std::fclose);
    if (stream == nullptr || std::fseek(stream.get(), 0, SEEK_END) != 0) {
        return;
    }
    HistEvent event;
    // libedit begins a new file with a line that names the format.
    history(lines, &event, H_SAVE_FP, stream.get());
    if (std::fflush(stream.get()) != 0 || std::ftell(stream.get()) <= longest_history_file) {
        return;
    }
    // The file is written again under the same lock and name: another session may wait for the lock of this file.
    History* newest = history_init();
    history(newest, &event, H_SETSIZE, history_size);
    history(newest, &event, H_LOAD, path.c_str());
    std::rewind(stream.get());
    if (file.truncate(0)) {
        history(newest, &event, H_SAVE_FP, stream.get());
    }
    history_end(newest);
}

}  // namespace client
