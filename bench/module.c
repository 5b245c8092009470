// The module program of every load. Its command word selects what it does:
//   oneline                   writes one line of 80 bytes
//   stream BYTES              writes that many bytes as lines of 80
//   sleep MS, brief MS        sleeps; "brief" has a time-out of one second
//   mix BYTES EXIT SIGNAL MS  writes, sleeps, then raises the signal (when not 0) or exits with the code
//   job NAME                  adds NAME as a line to the file "jobs" under VGD_data
//   devconf                   prints a configuration date
// Any other word does nothing. The exit code is 3 when a write fails, else 0 except for mix.
#define _GNU_SOURCE
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { line_size = 80, block_size = 800 * line_size };

static void write_lines(long bytes) {
    static char block[block_size];
    memset(block, 'x', sizeof block);
    for (int end = line_size; end <= block_size; end += line_size) {
        block[end - 1] = '\n';
    }
    for (long sent = 0; sent < bytes;) {
        const long start = sent % line_size;  // after a short write, continues inside a line
        const long room = block_size - start;
        const ssize_t done = write(1, block + start, (size_t)(bytes - sent < room ? bytes - sent : room));
        if (done <= 0) {
            exit(3);
        }
        sent += done;
    }
}

static void sleep_ms(long ms) {
    const struct timespec wait = {ms / 1000, ms % 1000 * 1000000};
    nanosleep(&wait, NULL);
}

static void note_job(const char* name) {
    char path[4096];
    snprintf(path, sizeof path, "%s/jobs", getenv("VGD_data"));
    const int fd = open(path, O_WRONLY | O_APPEND | O_CREAT, 0666);
    if (fd < 0 || dprintf(fd, "%s\n", name) < 0) {
        exit(3);
    }
}

int main(int argc, char** argv) {
    const char* word = argv[0];
    if (strcmp(word, "oneline") == 0) {
        write_lines(line_size);
    } else if (strcmp(word, "stream") == 0 && argc > 1) {
        write_lines(atol(argv[1]));
    } else if ((strcmp(word, "sleep") == 0 || strcmp(word, "brief") == 0) && argc > 1) {
        sleep_ms(atol(argv[1]));
    } else if (strcmp(word, "mix") == 0 && argc > 4) {
        write_lines(atol(argv[1]));
        sleep_ms(atol(argv[4]));
        if (atoi(argv[3]) != 0) {
            // A shell starts background programs with SIGINT and SIGQUIT ignored.
            signal(atoi(argv[3]), SIG_DFL);
            raise(atoi(argv[3]));
        }
        return atoi(argv[2]);
    } else if (strcmp(word, "job") == 0 && argc > 1) {
        note_job(argv[1]);
    } else if (strcmp(word, "devconf") == 0) {
        puts("2026-11-16T15:47:03+00:00");
    }
    return 0;
}
