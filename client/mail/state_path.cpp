#include "mail/state_path.h"

#include <cstdlib>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace client {

namespace {

// Made by the package; members of its group share one mailbox.
constexpr const char* package_directory = "/var/lib/schedctl";

// Returns the variable's value if it is an absolute path, else an empty text: others must be ignored.
std::string absolute_variable(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && value[0] == '/' ? value : "";
}

// HOME may be missing below a monitoring engine, and below sudo it may be another user's: then the user database has
// it.
std::string home_directory() {
    std::string home = absolute_variable("HOME");
    struct stat info {};
    if (!home.empty() && stat(home.c_str(), &info) == 0 && info.st_uid == geteuid()) {
        return home;
    }
    const passwd* self = getpwuid(geteuid());
    return self != nullptr && self->pw_dir[0] == '/' ? self->pw_dir : home;
}

// Creates each directory of the path; a failure shows when a file in it cannot be opened.
std::string created(const std::string& path) {
    for (std::size_t at = 0; at != std::string::npos && access(path.c_str(), F_OK) != 0;) {
        at = path.find('/', at + 1);
        mkdir(path.substr(0, at).c_str(), 0700);
    }
    return path;
}

}  // namespace

std::string private_directory() {
    std::string path = absolute_variable("XDG_STATE_HOME");
    if (path.empty()) {
        path = home_directory();
        if (path.empty()) {
            return "";
        }
        path += "/.local/state";
    }
    return created(path + "/schedctl");
}

std::string state_directory() {
    if (absolute_variable("XDG_STATE_HOME").empty() &&
        faccessat(AT_FDCWD, package_directory, W_OK | X_OK, AT_EACCESS) == 0) {
        return package_directory;
    }
    return private_directory();
}

std::string state_subdirectory(const char* name) {
    const std::string state = state_directory();
    std::string path = state.empty() ? "" : state + "/" + name + "/";
    if (!path.empty() && mkdir(path.c_str(), 0700) == 0 && is_shared(state)) {
        chmod(path.c_str(), 02770);
    }
    return path;
}

bool is_shared(const std::string& directory) {
    struct stat info {};
    constexpr mode_t shared = S_ISGID | S_IWGRP;
    return stat(directory.c_str(), &info) == 0 && (info.st_mode & shared) == shared;
}

}  // namespace client
