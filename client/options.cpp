#include "options.h"

#include "answer.h"
#include "json.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <arpa/inet.h>
#include <cstdlib>
#include <netdb.h>

namespace client {

namespace {

constexpr const char* description =
    "Operator's client of the scheduler.\n"
    "With command words it sends one command and streams the answer; without any it opens a session;\n"
    "with `watch` it shows the status live. Options come before the command words.";

constexpr const char* exit_codes =
    "Exit codes:\n"
    "  0-255  the module's own exit code\n"
    "  128+N  signal N ended the module\n"
    "  200    wrong usage, or the client itself failed: writing the output, computing the login\n"
    "  201    busy: the module is switched off, or the lock is held (unlock: not held)\n"
    "  202    unsupported: the scheduler does not know the command\n"
    "  203    the module overran its time-out and was killed\n"
    "  204    login refused\n"
    "  205    no connection, or it was closed before the answer was complete\n"
    "  206    no answer within --timeout\n"
    "A module may exit with a code of this list itself; for the client's own there is a message on standard\n"
    "error.";

// The services entry `vgdsched`, else the scheduler's own default.
std::uint16_t default_port() {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(nullptr, "vgdsched", &hints, &found) != 0) {
        return 9980;
    }
    const std::uint16_t port = ntohs(reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_port);
    freeaddrinfo(found);
    return port;
}

// A value may have come from the environment; then its variable is to be blamed, not the option.
std::string failure(const CLI::App* app, const CLI::Error& problem) {
    std::string text = problem.what();
    for (const CLI::Option* option : app->get_options()) {
        const char* value = std::getenv(option->get_envname().c_str());
        if (value != nullptr && text.starts_with(option->get_name() + ":") &&
            option->results() == std::vector<std::string>{value}) {
            text.replace(0, option->get_name().size(), option->get_envname());
        }
    }
    return "schedctl: " + text + "\nRun with --help for more information.\n";
}

void add_options(CLI::App& app, settings& chosen) {
    app.add_option("-H,--host", chosen.where.host, "Host of the scheduler")
        ->envname("SCHED_HOST")
        ->capture_default_str();
    app.add_option("-p,--port", chosen.where.port, "TCP port")
        ->envname("SCHED_PORT")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    app.add_option("-u,--user", chosen.user, "Name to greet the scheduler with")->envname("SCHED_USER");
    app.add_option("-t,--timeout", chosen.where.timeout, "Seconds of silence before giving up; 0: no limit")
        ->envname("SCHED_TIMEOUT")
        ->check(CLI::Range(0, 86400))
        ->capture_default_str();
    app.add_option("-b,--bind", chosen.where.source, "Local IPv4 address to connect from")
        ->check(CLI::ValidIPV4);
    app.add_option("--password-file", chosen.password_file, "File whose first line is the password");
    app.add_flag("--json", chosen.json, std::string("Answer of ") + json_commands + " as JSON");
}

// The words with a JSON form take no such argument themselves, so the option may follow them too.
void take_trailing_json(settings& chosen) {
    std::vector<std::string>& words = chosen.words;
    constexpr std::string_view with_json[] = {"status", "modcntl", "debug", "show"};
    if (words.size() < 2 || words.back() != "--json" || std::ranges::count(with_json, words[0]) == 0) {
        return;
    }
    words.pop_back();
    chosen.json = true;
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, settings& chosen) {
    chosen.where.host = "127.0.0.1";
    chosen.where.port = default_port();
    CLI::App app(description, "schedctl");
    app.footer(exit_codes);
    app.failure_message(failure);
    app.get_formatter()->label("SUBCOMMAND", "WORD... | watch");
    add_options(app, chosen);
    CLI::App* watch = app.add_subcommand("watch", "Show the status live until Ctrl-C");
    watch->fallthrough();  // the options above may follow the word
    watch->add_option("-n,--interval", chosen.interval, "Seconds between two looks")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.prefix_command();  // whatever follows the first command word belongs to the command
    try {
        app.parse(argc, argv);
        chosen.words = app.remaining();
        if (!chosen.words.empty() && chosen.words.front() == "--") {
            chosen.words.erase(chosen.words.begin());
        }
        chosen.watch = watch->parsed();
        take_trailing_json(chosen);
        if (!chosen.words.empty() && chosen.words.front().starts_with("-")) {
            throw CLI::ExtrasError(chosen.words);
        }
        if (chosen.watch && !chosen.words.empty()) {
            throw CLI::ExtrasError(chosen.words);
        }
        if (chosen.json && chosen.words.empty()) {
            throw CLI::RequiresError("--json", json_commands);
        }
    } catch (const CLI::ParseError& problem) {
        return app.exit(problem) == 0 ? 0 : exit_usage;
    }
    return std::nullopt;
}

}  // namespace client
