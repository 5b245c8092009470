#include "mail/state_file.h"

#include "mail/replace_file.h"
#include "term/text.h"

#include <cerrno>
#include <cstdlib>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <utility>

namespace {

constexpr std::chrono::milliseconds retry_after{10};

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

// True when this directory is shared by a group: its files then have the mode 0660.
bool is_shared(const std::string& directory) {
    struct stat info {};
    constexpr mode_t shared = S_ISGID | S_IWGRP;
    return stat(directory.c_str(), &info) == 0 && (info.st_mode & shared) == shared;
}

// A FIFO must not block, and what is no regular file is not ours.
descriptor open_regular(const std::string& path, int flags) {
    descriptor file(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    struct stat info {};
    if (file.is_open() && (fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode))) {
        file.reset();
        errno = EINVAL;
    } else if (file.is_open() && (flags & O_CREAT) != 0 && is_shared(directory_of(path))) {
        fchmod(file.get(), 0660);  // fails for a file of another user, which has its mode already
    }
    return file;
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
    // The set-group-ID bit comes from the directory above. A service may not set it with chmod, which an operator may
    // need: his umask can be stricter than that of a service.
    const bool shared = !path.empty() && is_shared(state);
    if (!path.empty() && mkdir(path.c_str(), shared ? 0770 : 0700) == 0 && shared) {
        chmod(path.c_str(), 02770);
    }
    return path;
}

state_file::state_file(std::string path, access how)
    : path_(std::move(path)), file_(open_regular(path_, static_cast<int>(how))) {}

bool state_file::lock(std::chrono::steady_clock::time_point until) {
    // flock has no time-out, so the lock is tried again and again.
    while (is_open() && flock(fd(), LOCK_EX | LOCK_NB) != 0) {
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(retry_after);
    }
    return is_open() && !is_removed();
}

bool state_file::is_removed() const {
    struct stat info {};
    return fstat(fd(), &info) != 0 || info.st_nlink == 0;
}

std::string state_file::read() const {
    std::string text;
    char piece[65536];
    ssize_t n = 0;
    while ((n = pread(fd(), piece, sizeof piece, static_cast<off_t>(text.size()))) > 0) {
        text.append(piece, static_cast<std::size_t>(n));
    }
    return text;
}

bool state_file::write_at(std::uint64_t offset, std::string_view bytes) const {
    return lseek(fd(), static_cast<off_t>(offset), SEEK_SET) >= 0 && write_all(fd(), bytes);
}

void state_file::reserve(std::size_t size) const {
    struct stat info {};
    const auto wanted = static_cast<off_t>(size);
    const bool has_it = fstat(fd(), &info) == 0 && info.st_size >= wanted;
    if (const int problem = has_it ? 0 : posix_fallocate(fd(), 0, wanted); problem != 0) {
        throw std::system_error(problem, std::generic_category(), path_);
    }
}

bool state_file::remove_dead() {
    if (flock(fd(), LOCK_SH | LOCK_NB) != 0) {
        return is_removed();
    }
    if (!is_removed()) {  // else the name may be that of a new file
        remove();         // of a process that was killed
    }
    return true;
}

void state_file::remove() {
    unlink(path_.c_str());
    *this = state_file();
}

// By a second name: a rename would replace an existing file.
bool state_file::move_to(const std::string& path) {
    if (link(path_.c_str(), path.c_str()) != 0) {
        return false;
    }
    unlink(path_.c_str());
    path_ = path;
    return true;
}

std::optional<std::string> read_file(const std::string& path) {
    const state_file file(path, state_file::access::read);
    return file.is_open() ? std::optional(file.read()) : std::nullopt;
}
