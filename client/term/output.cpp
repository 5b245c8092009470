#include "term/output.h"

#include "term/exit_code.h"
#include "term/text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

void report_failure() {
    std::fprintf(stderr, "%s: cannot write: %s\n", program_invocation_short_name,
                 std::generic_category().message(errno).c_str());
}

}  // namespace

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
    report_failure();
    return false;
}

void print(std::string_view text) {
    if (!write_all(STDOUT_FILENO, text)) {
        report_failure();
        std::exit(exit_usage);
    }
}

}  // namespace client
