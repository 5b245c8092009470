#include "state_path.h"

#include "connection.h"
#include "text.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

std::string absolute_variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] == '/' ? value : "";
}

// A monitoring engine may start us without HOME.
std::string home_directory() {
    const std::string home = absolute_variable("HOME");
    if (!home.empty()) {
        return home;
    }
    const passwd* self = getpwuid(geteuid());
    return self != nullptr && self->pw_dir[0] == '/' ? self->pw_dir : "";
}

void sync_directory_of(const std::string& path) {
    const int fd = open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    fsync(fd);  // where it is refused, the file is in place all the same
    close(fd);
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
    for (std::size_t at = 0; at != std::string::npos;) {
        at = path.find('/', at + 1);
        mkdir(path.substr(0, at).c_str(), 0700);
    }
    return path;
}

std::string file_name_of(const endpoint& where) {
    std::string name = where.host == "localhost" ? "127.0.0.1" : where.host;
    for (char& c : name) {
        const auto byte = static_cast<unsigned char>(c);
        c = std::isalnum(byte) != 0 || c == '.' || c == '-' ? static_cast<char>(std::tolower(byte)) : '_';
    }
    return name + ":" + std::to_string(where.port);
}

bool replace_file(const std::string& path, std::string_view text, mode_t mode, bool durable,
                  std::string& problem) {
    std::string temporary = path + ".XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        problem = path + ": " + std::generic_category().message(errno);
        return false;
    }
    const bool written = write_all(fd, text) && fchmod(fd, mode) == 0 && (!durable || fsync(fd) == 0);
    const int write_error = errno;
    const bool closed = close(fd) == 0;
    if (written && closed && std::rename(temporary.c_str(), path.c_str()) == 0) {
        if (durable) {
            sync_directory_of(path);
        }
        return true;
    }
    problem = path + ": " + std::generic_category().message(written ? errno : write_error);
    unlink(temporary.c_str());
    return false;
}

}  // namespace client
