#include "util/pid_file.h"

#include "trace/trace.h"
#include "util/text.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

int write_pidfile(const char* path) {
    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (file < 0) {
        return trprintf("Error:write_pidfile:%s:failed to open.(errno=%d)\n", path, errno);
    }
    char text[16];
    const std::size_t length = format_text(text, "%u", static_cast<unsigned>(getpid()));
    [[maybe_unused]] const ssize_t written = write(file, text, length);
    return close(file);
}
