#include "util/pid_file.h"

#include "util/regular_file.h"
#include "util/text.h"

#include <fcntl.h>
#include <unistd.h>

int write_pidfile(const char* path) {
    const unique_fd file = open_regular(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!file) {
        return -1;
    }
    char text[16];
    const std::size_t length = format_text(text, "%u", static_cast<unsigned>(getpid()));
    [[maybe_unused]] const ssize_t written = write(file.get(), text, length);
    return 0;
}
