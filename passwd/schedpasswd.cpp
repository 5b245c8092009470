// schedpasswd: writes or checks the scheduler's password file.
#include "mail/replace_file.h"
#include "protocol/login.h"
#include "term/descriptor.h"
#include "term/output.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int exit_wrong = 1;     // --check: another password
constexpr int exit_trouble = 2;   // usage, no password, or the file cannot be used
constexpr int exit_output = 200;  // done, but standard output could not be written

// The functions below throw std::runtime_error with the reason, which main reports.

// Returns the path of the scheduler's password file. Its directory is VGD_data of the environment, else of the
// installed service's settings: in a shell of root the variable is not set.
std::string default_file() {
    const char* const variable = std::getenv("VGD_data");
    std::string data = variable != nullptr ? variable : "";
    constexpr std::string_view key = "VGD_data=";
    std::ifstream settings(data.empty() ? SCHED_DEFAULTS : "/dev/null");
    for (std::string line; std::getline(settings, line);) {
        if (line.starts_with(key)) {
            data = line.substr(key.size());
            std::erase(data, '"');
        }
    }
    if (data.empty()) {
        throw std::runtime_error("VGD_data is set neither here nor in " SCHED_DEFAULTS
                                 "; name the file: schedpasswd DIRECTORY/password");
    }
    return data + "/password";
}

// A new password is asked for twice, since a typing mistake would lock all operators out.
std::string get_password(bool from_input, bool is_new) {
    errno = 0;
    if (from_input) {
        return read_password(std::cin, "standard input");
    }
    std::string password;
    std::string problem;
    if (!ask_password(is_new ? "New password: " : "Password: ", is_new, password, problem)) {
        throw std::runtime_error(problem);
    }
    return password;
}

int check(const std::string& path, bool from_input) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error(path + ": " + std::generic_category().message(errno));
    }
    char text[128] = "";  // as much as the scheduler reads
    file.read(text, sizeof text - 1);
    std::istringstream words(text);
    std::string hash;  // 64 lower-case hexadecimal digits
    std::string salt;  // 8 letters or digits
    words >> hash >> salt;
    if (hash.size() != 64 || salt.size() != 8) {
        throw std::runtime_error(path + ": not a password file (the scheduler would require no login)");
    }
    std::string password = get_password(from_input, false);
    const bool right = hash_text(salt, password) == hash;
    wipe(password);  // passwords stay in memory no longer than needed
    std::puts(right ? "The password is right." : "The password is wrong.");
    return right ? 0 : exit_wrong;
}

// Replaces the file in one step and waits until it is on the disk: a scheduler that starts at any moment reads the old
// file or the new one, never a part. A symbolic link, a device and a pipe are refused. The mode is 0600. When root
// writes it, the file gets the owner of the old one, else of the directory: one that the scheduler cannot read would
// switch the login off.
int set(const std::string& path, bool from_input) {
    std::string password = get_password(from_input, true);
    if (password.empty()) {
        throw std::runtime_error("an empty password protects nothing");
    }
    const std::string salt = random_alphanumeric(8);
    const std::string text = hash_text(salt, password) + " " + salt + "\n";
    wipe(password);
    const auto complete = [&path](int fd) {
        struct stat owner {};
        return (geteuid() != 0 || ((stat(path.c_str(), &owner) == 0 || stat(directory_of(path).c_str(), &owner) == 0) &&
                                   fchown(fd, owner.st_uid, owner.st_gid) == 0)) &&
               fsync(fd) == 0;
    };
    replace_file(path, text, 0600, complete);
    const descriptor directory(open(directory_of(path).c_str(), O_RDONLY | O_CLOEXEC));
    if (!directory.is_open() || fsync(directory.get()) != 0) {
        throw std::system_error(errno, std::generic_category(),
                                path + " is written, but may be lost after a power failure");
    }
    std::printf("%s is written; the scheduler reads it at its next start.\n", path.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    if (!open_standard_streams()) {
        return exit_output;
    }
    std::string file;
    bool checks = false;
    bool from_input = false;
    CLI::App app("Writes the password file, with which the scheduler requires a login from its clients.",
                 "schedpasswd");
    app.footer(
        "Exit codes: 0 done, or the password is right; 1 the password is wrong (--check); 2 trouble; 200 "
        "the\n"
        "output could not be written.");
    app.set_version_flag("-V,--version", "schedpasswd " SCHED_VERSION, "Show the version and end");
    app.add_option("FILE", file, "Password file; default: that of $VGD_data, else of the installed service");
    app.add_flag("--check", checks, "Verify a password against the file instead of writing it");
    app.add_flag("--stdin", from_input, "Read the password from one line of standard input");
    int code = 0;
    try {
        app.parse(argc, argv);
        file = file.empty() ? default_file() : file;
        code = checks ? check(file, from_input) : set(file, from_input);
    } catch (const CLI::ParseError& problem) {
        code = app.exit(problem) != 0 ? exit_trouble : 0;
    }
    return code == exit_trouble || flush_output() ? code : exit_output;
} catch (const std::exception& problem) {
    complain(problem.what());
    return exit_trouble;
}
