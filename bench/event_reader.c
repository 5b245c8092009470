// The lowest cost of an event line that is read byte by byte, when both logs are opened for each line: select, one-byte
// reads, and for every line stat, open, append and close of a trace file and of a log file.
// Usage: event_reader PIPE TRACE LOG. It runs until a signal ends it.
#define _GNU_SOURCE
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

enum { line_max = 1024, rotate_size = 262144 };

static void append(const char* path, const char* line, size_t size) {
    struct stat file;
    if (stat(path, &file) == 0 && file.st_size > rotate_size) {
        char old[4096];
        snprintf(old, sizeof old, "%s.0", path);
        rename(path, old);
    }
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0 || write(fd, line, size) != (ssize_t)size) {
        perror(path);
    }
    close(fd);
}

int main(int argc, char** argv) {
    if (argc != 4) {
        return 1;
    }
    const int fd = open(argv[1], O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0 || fcntl(fd, F_SETFL, 0) != 0 || open(argv[1], O_WRONLY | O_NONBLOCK | O_CLOEXEC) < 0) {
        return 1;
    }
    // Constant text in place of the daemon's time stamp and thread, so that the lines are equally long.
    char trace[2 * line_max] = "2026/01/01 00:00:00 thr:00000000 event:vgdmsg:\"";
    char log[2 * line_max] = "2026/01/01 00:00:00 : ";
    char line[line_max];
    size_t length = 0;
    const size_t trace_prefix = strlen(trace);
    const size_t log_prefix = strlen(log);
    for (;;) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(fd, &ready);
        if (select(fd + 1, &ready, NULL, NULL, NULL) != 1 || read(fd, line + length, 1) != 1) {
            continue;
        }
        if (line[length++] != '\n' && length < sizeof line) {
            continue;
        }
        line[length - 1] = '\0';
        append(argv[2], trace, trace_prefix + (size_t)sprintf(trace + trace_prefix, "%s\"\n", line));
        append(argv[3], log, log_prefix + (size_t)sprintf(log + log_prefix, "%s\n", line));
        length = 0;
    }
}
