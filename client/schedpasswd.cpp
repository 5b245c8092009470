// schedpasswd: writes or checks the scheduler's password file.
#include "mail/replace_file.h"
#include "protocol/login.h"
#include "term/output.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int exit_wrong = 1;     // --check: another password
constexpr int exit_trouble = 2;   // usage, no password, or the file cannot be used
constexpr int exit_output = 200;  // done, but standard output could not be written

// The arguments.
struct request {
    std::string file;
    bool check = false;
    bool from_input = false;
};

// The functions below throw std::runtime_error with the reason, which main reports.

// A password file: hash text, a blank, salt, a line feed.
struct password_record {
    std::string hash;  // 64 lower-case hexadecimal digits
    std::string salt;  // 8 letters or digits
};

bool give_to_owner(int fd, const std::string& path) {
    struct stat owner {};
    if (geteuid() != 0) {
        return true;
    }
    if (stat(path.c_str(), &owner) != 0 && stat(client::directory_of(path).c_str(), &owner) != 0) {
        return false;
    }
    return fchown(fd, owner.st_uid, owner.st_gid) == 0;
}

// Returns the record, if the scheduler would accept it.
password_record read_password_file(const std::string& path) {
    std::FILE* const file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        throw std::runtime_error(path + ": " + std::generic_category().message(errno));
    }
    char text[128] = "";  // as much as the scheduler reads
    text[std::fread(text, 1, sizeof text - 1, file)] = '\0';
    std::fclose(file);
    char hash[128] = "";
    char salt[128] = "";
    if (std::sscanf(text, "%127s %127s", hash, salt) != 2 || std::strlen(hash) != 64 ||
        std::strlen(salt) != 8) {
        throw std::runtime_error(path + ": not a password file (the scheduler would require no login)");
    }
    return {hash, salt};
}

// Replaces the file in one step: a scheduler that starts at any moment reads the old file or the new one, never a part.
// A symbolic link, a device and a pipe are refused. The mode is 0600. When root writes it, the file gets the owner of
// the old file, else of the directory: a file that the scheduler cannot read would switch the login off.
void write_password_file(const std::string& path, const password_record& record) {
    std::string problem;
    if (!client::replace_file(path, record.hash + " " + record.salt + "\n", 0600, true, problem,
                              [&](int fd) { return give_to_owner(fd, path); })) {
        throw std::runtime_error(problem);
    }
}

// The password file of the scheduler that these directories belong to: VGD_data of the environment, else of the
// installed service's settings, as root has no such variable in a shell. Empty when neither has it.
std::string default_file() {
    std::string data;
    if (const char* variable = std::getenv("VGD_data"); variable != nullptr) {
        data = variable;
    }
    constexpr std::string_view key = "VGD_data=";
    std::ifstream settings(data.empty() ? SCHED_DEFAULTS : "/dev/null");
    for (std::string line; std::getline(settings, line);) {
        if (line.starts_with(key)) {
            data = line.substr(key.size());
            std::erase(data, '"');
        }
    }
    return data.empty() ? "" : data + "/password";
}

int finish(int code) {
    return client::flush_output() ? code : exit_output;
}

int fail(const std::string& problem) {
    client::complain(problem);
    return exit_trouble;
}

// A new password is asked for twice, since a typing mistake would lock all operators out.
std::string get_password(const request& asked) {
    std::string password;
    std::string problem;
    errno = 0;
    if (asked.from_input) {
        if (!client::read_password(std::cin, password, problem)) {
            throw std::runtime_error("standard input: " + problem);
        }
    } else if (!client::ask_password(asked.check ? "Password: " : "New password: ", !asked.check, password,
                                     problem)) {
        throw std::runtime_error(problem);
    }
    return password;
}

int check(const request& asked) {
    const password_record record = read_password_file(asked.file);
    std::string password = get_password(asked);
    const bool right = client::hash_text(record.salt, password) == record.hash;
    client::wipe(password);  // passwords stay in memory no longer than needed
    std::puts(right ? "The password is right." : "The password is wrong.");
    return right ? 0 : exit_wrong;
}

int set(const request& asked) {
    std::string password = get_password(asked);
    if (password.empty()) {
        return fail("an empty password protects nothing");
    }
    const std::string salt = client::random_alphanumeric(8);
    const password_record record{client::hash_text(salt, password), salt};
    client::wipe(password);
    write_password_file(asked.file, record);
    std::printf("%s is written; the scheduler reads it at its next start.\n", asked.file.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    if (!client::open_standard_streams()) {
        return exit_output;
    }
    request asked;
    CLI::App app("Writes the password file, with which the scheduler requires a login from its clients.",
                 "schedpasswd");
    app.footer(
        "Exit codes: 0 done, or the password is right; 1 the password is wrong (--check); 2 trouble; 200 "
        "the\n"
        "output could not be written.");
    app.set_version_flag("-V,--version", "schedpasswd " SCHED_VERSION, "Show the version and end");
    app.add_option("FILE", asked.file,
                   "Password file; default: that of $VGD_data, else of the installed service");
    app.add_flag("--check", asked.check, "Verify a password against the file instead of writing it");
    app.add_flag("--stdin", asked.from_input, "Read the password from one line of standard input");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) != 0 ? exit_trouble : finish(0);
    }
    if (asked.file.empty()) {
        asked.file = default_file();
    }
    if (asked.file.empty()) {
        return fail("VGD_data is set neither here nor in " SCHED_DEFAULTS
                    "; name the file: schedpasswd DIRECTORY/password");
    }
    return finish(asked.check ? check(asked) : set(asked));
} catch (const std::exception& problem) {
    return fail(problem.what());
}
