// The lowest cost of a module command: a TCP server with the daemon's line protocol. It starts one program with
// posix_spawn for every line, relays its output with each LF as CR LF and ends with "__over__".
// It has no log, no locks and no time-outs. "status" is answered at once, which shows the cost of an empty answer.
// Usage: baseline_server PROGRAM. It prints the loopback port on which it listens.
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

enum { chunk_size = 16384, arguments_max = 16 };

static const char* program;

static bool write_all(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t done = write(fd, data, size);
        if (done <= 0) {
            return false;
        }
        data += done;
        size -= (size_t)done;
    }
    return true;
}

// Returns at the end of the pipe or when the peer has closed: true when the output ended with a line feed or was empty.
static bool relay(int from, int to) {
    char in[chunk_size];
    char out[2 * chunk_size];
    bool ended_line = true;
    ssize_t got;
    while ((got = read(from, in, sizeof in)) > 0) {
        size_t size = 0;
        for (ssize_t i = 0; i < got; ++i) {
            if (in[i] == '\n') {
                out[size++] = '\r';
            }
            out[size++] = in[i];
        }
        ended_line = in[got - 1] == '\n';
        if (!write_all(to, out, size)) {
            return true;
        }
    }
    return ended_line;
}

static void run(int peer, char** arguments) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], 1);
    pid_t child;
    const int failed = posix_spawn(&child, program, &actions, NULL, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (failed == 0 && !relay(ends[0], peer)) {
        write_all(peer, "\r\n", 2);
    }
    close(ends[0]);  // before the wait, so that a program that still writes ends with SIGPIPE
    int status = 1 << 8;
    if (failed == 0) {
        waitpid(child, &status, 0);
    }
    char over[32];
    const int size = snprintf(over, sizeof over, "__over__ %d %d\r\n", status >> 8 & 0xff, status & 0xff);
    write_all(peer, over, (size_t)size);
}

static void* serve(void* argument) {
    FILE* requests = argument;
    const int peer = fileno(requests);
    char* line = NULL;
    size_t room = 0;
    while (getdelim(&line, &room, '\r', requests) > 0) {
        char* rest = line + strspn(line, "\n");
        rest[strcspn(rest, "\r")] = '\0';
        if (strcmp(rest, "status") == 0) {
            write_all(peer, "__over__ 0 0\r\n", 14);
            continue;
        }
        char* arguments[arguments_max] = {0};
        for (int count = 0; rest != NULL && count < arguments_max - 1; ++count) {
            arguments[count] = strsep(&rest, "\t");
        }
        run(peer, arguments);
    }
    free(line);
    fclose(requests);
    return NULL;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        return 1;
    }
    program = argv[1];
    signal(SIGPIPE, SIG_IGN);
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
    socklen_t size = sizeof address;
    if (bind(listener, (struct sockaddr*)&address, size) != 0 || listen(listener, 128) != 0 ||
        getsockname(listener, (struct sockaddr*)&address, &size) != 0) {
        return 1;
    }
    printf("%d\n", ntohs(address.sin_port));
    fflush(stdout);
    for (;;) {
        const int peer = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
        if (peer < 0) {
            continue;
        }
        const int on = 1;
        setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        FILE* requests = fdopen(peer, "r");
        pthread_t thread;
        if (requests == NULL || pthread_create(&thread, NULL, serve, requests) != 0) {
            return 1;
        }
        pthread_detach(thread);
    }
}
