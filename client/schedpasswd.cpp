// schedpasswd: writes or checks the scheduler's password file.
#include "password_file.h"
#include "protocol/secret.h"
#include "term/output.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string_view>

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

// The password file of the scheduler that these directories belong to: VGD_data of the environment, else of the installed
// service's settings, as root has no such variable in a shell. Empty when neither has it.
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
    std::fprintf(stderr, "schedpasswd: %s\n", problem.c_str());
    return exit_trouble;
}

// A new password is asked for twice, since a typing mistake would lock all operators out.
bool get_password(const request& asked, std::string& password, std::string& problem) {
    if (!asked.from_input) {
        return client::ask_password(asked.check ? "Password: " : "New password: ", !asked.check, password,
                                    problem);
    }
    errno = 0;
    const bool given = client::read_password(std::cin, password, problem);
    problem.insert(0, "standard input: ");
    return given;
}

int check(const request& asked) {
    client::password_record record;
    std::string password;
    std::string problem;
    if (!client::read_password_file(asked.file, record, problem) || !get_password(asked, password, problem)) {
        return fail(problem);
    }
    const bool right = client::hash_text(record.salt, password) == record.hash;
    client::wipe(password);  // passwords stay in memory no longer than needed
    std::puts(right ? "The password is right." : "The password is wrong.");
    return right ? 0 : exit_wrong;
}

int set(const request& asked) {
    std::string password;
    std::string problem;
    if (!get_password(asked, password, problem)) {
        return fail(problem);
    }
    if (password.empty()) {
        return fail("an empty password protects nothing");
    }
    const std::string salt = client::random_alphanumeric(8);
    const client::password_record record{client::hash_text(salt, password), salt};
    client::wipe(password);
    if (!client::write_password_file(asked.file, record, problem)) {
        return fail(problem);
    }
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
