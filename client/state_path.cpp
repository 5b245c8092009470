#include "state_path.h"

#include "connection.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace client {

namespace {

// Returns the variable's value if it is an absolute path, else an empty text: others must be ignored.
std::string absolute_variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] == '/' ? value : "";
}

// A monitoring engine may start the client without HOME; then the user database has it.
std::string home_directory() {
    std::string home = absolute_variable("HOME");
    if (!home.empty()) {
        return home;
    }
    const passwd* self = getpwuid(geteuid());
    return self != nullptr && self->pw_dir[0] == '/' ? self->pw_dir : "";
}

}  // namespace

std::string state_directory() {
    std::string path = absolute_variable("XDG_STATE_HOME");
    if (path.empty()) {
        path = home_directory();
        if (path.empty()) {
            return "";
        }
        path += "/.local/state";
    }
    path += "/schedctl";
    // Creates each directory of the path; a failure shows when a file in it cannot be opened.
    for (std::size_t at = 0; at != std::string::npos;) {
        at = path.find('/', at + 1);
        mkdir(path.substr(0, at).c_str(), 0700);
    }
    return path;
}

std::string file_name_of(const endpoint& where) {
    std::string name = where.host == "localhost" ? "127.0.0.1" : where.host;
    // Host names are the same in upper and lower case, and a slash must not get into a file name.
    for (char& c : name) {
        const auto byte = static_cast<unsigned char>(c);
        c = std::isalnum(byte) != 0 || c == '.' || c == '-' ? static_cast<char>(std::tolower(byte)) : '_';
    }
    return name + ":" + std::to_string(where.port);
}

std::optional<std::string> read_file(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);  // a FIFO must not hold us
    struct stat info {};
    if (fd < 0 || fstat(fd, &info) != 0) {
        close(fd);
        return std::nullopt;
    }
    std::string text;
    char piece[65536];
    ssize_t n = -1;
    while (S_ISREG(info.st_mode) && ((n = read(fd, piece, sizeof piece)) > 0 || (n < 0 && errno == EINTR))) {
        text.append(piece, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    close(fd);
    return n == 0 ? std::optional(text) : std::nullopt;
}

}  // namespace client
