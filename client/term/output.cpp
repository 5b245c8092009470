#include "term/output.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace client {

bool open_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // open returns the lowest free number, and the numbers below are open.
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDONLY) != fd) {
            return false;
        }
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
