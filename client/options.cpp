#include "options.h"

#include "answer.h"
#include "json.h"
#include "output.h"
#include "words.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <cstdlib>
#include <netdb.h>

namespace client {

namespace {

constexpr const char* description =
    "Operator's client of the scheduler.\n"
    "With command words it sends one command and streams the answer; without any it opens a session;\n"
    "with `watch` it shows the status live.\n"
    "Options are given before the words of a module, and before or after the words that the scheduler "
    "answers\n"
    "itself. Words after `--` are sent unchanged.";

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

// Returns the port of the services entry `vgdsched`, else the scheduler's default.
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

// Returns the text of a usage error. For a value from the environment it names the variable, not the option.
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
    app.add_option("-H,--host", chosen.where.host,
                   "Host of the scheduler, NAME[:PORT]; several separated by commas")
        ->envname("SCHED_HOST")
        ->capture_default_str();
    app.add_option("--hosts", chosen.hosts_file, "File with one host a line; - for standard input");
    app.add_option("--parallel", chosen.parallel, "Number of hosts asked at once")
        ->check(CLI::Range(1, 10000))
        ->capture_default_str();
    app.add_flag("--as-it-comes", chosen.as_it_comes,
                 "Output of several hosts as it comes, not in the order of the hosts");
    app.add_option("-p,--port", chosen.where.port, "TCP port")
        ->envname("SCHED_PORT")
        ->check(CLI::Range(1, 65535))
        ->capture_default_str();
    app.add_option("-u,--user", chosen.user, "Name for a greeting to the scheduler")->envname("SCHED_USER");
    app.add_option("-t,--timeout", chosen.where.timeout, "Seconds of silence before giving up; 0: no limit")
        ->envname("SCHED_TIMEOUT")
        ->check(CLI::Range(0, 86400))
        ->capture_default_str();
    app.add_option("-b,--bind", chosen.where.source, "Local IPv4 address to connect from")
        ->check(CLI::ValidIPV4);
    app.add_option("--password-file", chosen.password_file, "File whose first line is the password");
    app.add_flag("--json", chosen.json, std::string("Answer of ") + json_commands + " as JSON");
}

// Stores several hosts, or those of a file, in hosts; splits a single NAME:PORT.
void name_hosts(const CLI::App& app, settings& chosen) {
    endpoint& where = chosen.where;
    std::string problem;
    if (!chosen.hosts_file.empty()) {
        const char* usual = std::getenv("SCHED_HOST");
        if (app.count("--host") != 0 && (usual == nullptr || where.host != usual)) {
            throw CLI::ValidationError("--hosts", "cannot be used together with --host");
        }
        if (!read_hosts(chosen.hosts_file, where.port, chosen.hosts, problem)) {
            throw CLI::ValidationError("--hosts", problem);
        }
    } else if (!add_hosts(where.host, where.port, chosen.hosts, problem)) {
        throw CLI::ValidationError("--host", problem);
    } else if (chosen.hosts.size() == 1) {
        where.host = chosen.hosts[0].name;
        where.port = chosen.hosts[0].port;
        chosen.hosts.clear();
    }
    if (!chosen.hosts.empty() && !chosen.watch && chosen.words.empty()) {
        throw CLI::ValidationError("several hosts",
                                   "need a command or `watch`; everything else works with one host only");
    }
}

// CLI11 expects the arguments in reverse order.
void parse_list(CLI::App& app, const std::vector<std::string>& arguments) {
    std::vector<std::string> reversed(arguments.rbegin(), arguments.rend());
    app.parse(reversed);
}

// Returns the client's option that this word would be before the command; null when it is none.
const CLI::Option* option_of(const CLI::App& app, const std::string& word) {
    if (word.starts_with("--")) {
        return app.get_option_no_throw(word.substr(0, word.find('=')));
    }
    if (word.size() < 2 || word[0] != '-') {
        return nullptr;
    }
    const CLI::Option* option = app.get_option_no_throw(word.substr(0, 2));
    // "-p9980": a value may follow a short option without a blank.
    const bool value_may_follow = option != nullptr && option->get_items_expected_max() > 0;
    return word.size() == 2 || value_may_follow ? option : nullptr;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

[[noreturn]] void refuse(const std::string& word, const std::string& why,
                         const std::vector<std::string>& words) {
    throw CLI::ValidationError(word + " " + why + "; to send it as a word: schedctl -- " + joined(words));
}

// Refuses an option of the client among a module's words. It would be sent to the module, and the command would run on
// another host than the operator meant, without a message.
void refuse_swallowed(const CLI::App& app, const std::vector<std::string>& words) {
    for (const std::string& word : words) {
        if (option_of(app, word) != nullptr) {
            refuse(word, "is an option of schedctl and must be before a module's words", words);
        }
    }
}

// Allows options of the client also after the scheduler's own words, which have no options themselves. Any other word
// that looks like an option is a typing mistake and is refused, because the scheduler would ignore it without a
// message.
std::vector<std::string> parse_both_sides(CLI::App& app, const std::vector<std::string>& arguments) {
    for (CLI::App* subcommand : app.get_subcommands(nullptr)) {
        subcommand->disabled();  // `modcntl watch off` names a module
    }
    app.prefix_command(false);
    app.allow_extras();
    parse_list(app, arguments);
    std::vector<std::string> words = app.remaining();
    for (const std::string& word : words) {
        const std::size_t name = word.find_first_not_of('-');
        if ((name == 1 || name == 2) && std::isalpha(static_cast<unsigned char>(word[name])) != 0) {
            refuse(word, "is not an option of schedctl", words);
        }
    }
    return words;
}

// Returns the command words before a "--".
std::vector<std::string> parse_words(CLI::App& app, const std::vector<std::string>& arguments) {
    app.prefix_command();  // stop at the first word that is neither an option nor a subcommand
    parse_list(app, arguments);
    std::vector<std::string> words = app.remaining();
    if (words.empty()) {
        return words;
    }
    if (words.front().starts_with("-")) {
        throw CLI::ExtrasError(words);
    }
    if (is_internal_word(words.front())) {
        return parse_both_sides(app, arguments);
    }
    refuse_swallowed(app, words);
    return words;
}

// Prints a help or version text. A failed write of it gives an exit code as for any other output.
int finish(const CLI::App& app, const CLI::ParseError& problem) {
    const bool asked_for = app.exit(problem) == 0;
    const int usage = app.got_subcommand("check") ? static_cast<int>(plugin_unknown) : exit_usage;
    return asked_for && flush_output() ? 0 : usage;
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, settings& chosen) {
    chosen.where.host = "127.0.0.1";
    chosen.where.port = default_port();
    CLI::App app(description, "schedctl");
    app.footer(exit_codes);
    app.failure_message(failure);
    app.set_version_flag("-V,--version", "schedctl " SCHED_VERSION, "Show the version and end");
    app.get_formatter()->label("SUBCOMMAND", "WORD... | watch");
    add_options(app, chosen);
    CLI::App* watch = app.add_subcommand("watch", "Show the status live until Ctrl-C");
    watch->fallthrough();  // the options above may follow the word
    watch->add_option("-n,--interval", chosen.interval, "Seconds between two status requests")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    watch->add_flag("--level-prefix", chosen.level_prefix,
                    "With --json: begin each line with its priority, \"<3>\"");
    add_monitoring_commands(app, chosen.monitoring);
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    try {
        chosen.words = parse_words(app, {arguments.begin(), mark});
        chosen.watch = watch->parsed();
        if (mark != arguments.end()) {
            chosen.words.insert(chosen.words.end(), mark + 1, arguments.end());
        }
        name_hosts(app, chosen);
        const bool without_words = chosen.watch || chosen.monitoring.metrics || chosen.monitoring.check;
        if (without_words && !chosen.words.empty()) {
            throw CLI::ExtrasError(chosen.words);
        }
        if (chosen.json && chosen.words.empty() && !chosen.watch) {
            throw CLI::RequiresError("--json", json_commands);
        }
    } catch (const CLI::ParseError& problem) {
        return finish(app, problem);
    }
    return std::nullopt;
}

}  // namespace client
