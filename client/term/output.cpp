#include "term/output.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

constexpr int signal_interval = 100;  // milliseconds

// Writing to standard error waits for its reader. The signals may be blocked, so a pending one that tells the program
// to end must end this wait, too.
ssize_t write_error(void* /*unused*/, const char* text, std::size_t size) {
    for (std::size_t done = 0; done < size;) {
        sigset_t pending;
        pollfd ready{STDERR_FILENO, POLLOUT, 0};
        while (poll(&ready, 1, signal_interval) <= 0) {
            sigpending(&pending);
            for (const int signo : {SIGINT, SIGTERM, SIGHUP}) {
                if (sigismember(&pending, signo) == 1) {
                    return static_cast<ssize_t>(size);
                }
            }
        }
        // A pipe that is ready takes PIPE_BUF bytes without blocking.
        const ssize_t n = write(STDERR_FILENO, text + done, std::min<std::size_t>(size - done, PIPE_BUF));
        if (n < 0 && errno != EINTR && errno != EAGAIN) {
            return 0;
        }
        done += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return static_cast<ssize_t>(size);
}

}  // namespace

bool open_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // open returns the lowest free number, and the numbers below are open.
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDONLY) != fd) {
            return false;
        }
    }
    if (std::FILE* const patient = fopencookie(nullptr, "w", {nullptr, write_error, nullptr, nullptr})) {
        std::setvbuf(patient, nullptr, _IONBF, 0);
        stderr = patient;
    }
    return true;
}

bool flush_output() {
    errno = EIO;  // the stream does not store the reason of an earlier failure
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return true;
    }
    complain("cannot write: " + std::generic_category().message(errno));
    return false;
}

void complain(const std::string& problem) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, problem.c_str());
}

}  // namespace client
