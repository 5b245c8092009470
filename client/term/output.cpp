#include "term/output.h"

#include "term/exit_code.h"
#include "term/text.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

bool open_standard_streams() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // open returns the lowest free number, and the numbers below are open.
        if (fcntl(fd, F_GETFD) < 0 && open("/dev/null", O_RDONLY) != fd) {
            return false;
        }
    }
    const auto write_error = [](void*, const char* text, std::size_t size) -> ssize_t {
        return write_all(STDERR_FILENO, {text, size}) ? static_cast<ssize_t>(size) : 0;
    };
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
    fail_output();
    return false;
}

int fail_output() {
    complain("cannot write: " + std::generic_category().message(errno));
    return exit_usage;
}

void complain(const std::string& problem) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, problem.c_str());
}

bool line_writer::write(const std::string& line) {
    if (is_open_ && !write_all(STDOUT_FILENO, line)) {
        is_open_ = false;
        exit_code_ = errno == EPIPE || errno == EINTR ? 0 : fail_output();
    }
    return is_open_;
}

bool line_writer::print(const std::string& text) {
    return write((isatty(STDOUT_FILENO) == 1 ? fit(text) : text) + "\n");
}
