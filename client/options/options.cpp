#include "options/options.h"

#include "options/completion.h"
#include "protocol/answer.h"
#include "protocol/status.h"
#include "protocol/words.h"
#include "term/output.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <arpa/inet.h>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <netdb.h>

namespace {

constexpr const char* description =
    "Operator's client of the scheduler.\n"
    "With command words it sends one command and streams the answer; without any it opens a session;\n"
    "with `watch` it shows the status live, with `follow` it writes it for programs.\n"
    "Options are given before the words of a module, and before or after the words that the scheduler "
    "answers\n"
    "itself. Words after `--` are sent unchanged.";

void add_options(CLI::App& app, settings& chosen) {
    app.option_defaults()->always_capture_default();
    app.add_option("-H,--host", chosen.host_list,
                   "Host of the scheduler, NAME[:PORT]; several separated by commas; else SCHED_HOST")
        ->type_name("HOST");
    app.add_option("--hosts", chosen.hosts_file, "File with one host a line; - for standard input")->type_name("FILE");
    app.add_flag("--list", chosen.list, "Print the hosts, one a line, and end");
    app.add_option("--parallel", chosen.parallel, "Number of hosts asked at once")->check(CLI::Range(1, 10000));
    app.add_flag("--as-it-comes", chosen.as_it_comes,
                 "Lines of several hosts as they come, not together for each host");
    app.add_option("-p,--port", chosen.port, "TCP port; else SCHED_PORT")->check(CLI::Range(1, 65535));
    app.add_option("-u,--user", chosen.connect.user, "Name that other operators see with `show ip`; else SCHED_USER");
    app.add_option("-t,--timeout", chosen.connect.timeout,
                   "Seconds without a byte before giving up; 0: the usual limits; else SCHED_TIMEOUT")
        ->check(CLI::Range(0, 86400));
    app.add_option("-b,--bind", chosen.connect.source, "Local IPv4 address to connect from")->check(CLI::ValidIPV4);
    app.add_option("--password-file", chosen.connect.password_file, "File whose first line is the password")
        ->type_name("FILE");
    app.add_flag("--json", chosen.json, std::string("Answer of ") + json_commands + " as JSON");
}

CLI::App& add_command(CLI::App& app, const char* word, const char* help, task what, settings& chosen) {
    CLI::App* const command = app.add_subcommand(word, help);
    command->fallthrough();  // the options above may follow the word
    command->callback([&chosen, what] { chosen.what = what; });
    return *command;
}

void add_live_commands(CLI::App& app, settings& chosen) {
    for (CLI::App* command :
         {&add_command(app, "watch", "Show the status live until Ctrl-C", task::watch, chosen),
          &add_command(app, "follow", "Write each message and change as a line of JSON", task::follow, chosen)}) {
        command->add_option("-n,--interval", chosen.interval, "Seconds between two status requests")
            ->check(CLI::Range(1, 3600));
        command->add_flag("--level-prefix", chosen.level_prefix, "Begin each line of JSON with its priority, \"<3>\"");
    }
}

void add_metrics(CLI::App& app, settings& chosen) {
    CLI::App& metrics =
        add_command(app, "metrics", "Print the metrics of the scheduler for collectors", task::metrics, chosen);
    CLI::Option* const output =
        metrics.add_option("-o,--output", chosen.output, "Replace this file, for the textfile collector")
            ->type_name("FILE");
    // --output writes a file once; --listen serves until it is stopped.
    metrics.add_option("--listen", chosen.listen, "Serve /metrics?target=HOST:PORT at ADDRESS:PORT")->excludes(output);
}

void add_check(CLI::App& app, settings& chosen) {
    CLI::App& check = add_command(app, "check", "Check the scheduler as a monitoring plugin", task::check, chosen);
    std::vector<std::string> words = {"all", "none"};
    words.insert(words.end(), std::begin(condition_names), std::end(condition_names));
    std::copy_if(std::begin(condition_names), std::end(condition_names), std::back_inserter(chosen.warning), is_fault);
    // A misspelt condition would never match, so the check would miss the fault: refuse it.
    const CLI::IsMember known(words);
    check
        .add_option("-w,--warning", chosen.warning, "Conditions that give a warning, separated by commas; or all, none")
        ->delimiter(',')
        ->check(known);
    check.add_option("-c,--critical", chosen.critical, "Conditions that are critical; they override -w")
        ->delimiter(',')
        ->check(known);
    // The names of the exit codes that all monitoring plugins share.
    const std::map<std::string, int> levels = {
        {"ok", plugin_ok}, {"warning", plugin_warning}, {"critical", plugin_critical}, {"unknown", plugin_unknown}};
    check.add_option("--timeout-state", chosen.timeout_level, "State when the scheduler does not answer in time")
        ->transform(CLI::CheckedTransformer(levels, CLI::ignore_case))
        ->default_str("unknown");
}

// Returns the value of a variable; null when the option is given, or the variable is not set or empty.
const char* from_environment(const CLI::App& app, const char* option, const char* variable) {
    const char* const value = std::getenv(variable);
    return app.count(option) == 0 && value != nullptr && value[0] != '\0' ? value : nullptr;
}

// The libraries' own way does not refuse a wrong number in every version: the default would be used without a message.
template <typename number>
void read_number(const CLI::App& app, const char* option, const char* variable, long first, long last, number& chosen) {
    if (const char* const value = from_environment(app, option, variable)) {
        const char* const end = value + std::strlen(value);
        long read = 0;
        const auto [stop, error] = std::from_chars(value, end, read);
        if (error != std::errc() || stop != end || read < first || read > last) {
            throw CLI::ValidationError(variable, std::string(value) + " is not a number from " + std::to_string(first) +
                                                     " to " + std::to_string(last));
        }
        chosen = static_cast<number>(read);
    }
}

// Completes the settings from the environment, and names the hosts.
void read_environment(const CLI::App& app, settings& chosen) {
    read_number(app, "--port", "SCHED_PORT", 1, 65535, chosen.port);
    read_number(app, "--timeout", "SCHED_TIMEOUT", 0, 86400, chosen.connect.timeout);
    if (const char* const user = from_environment(app, "--user", "SCHED_USER")) {
        chosen.connect.user = user;
    }
    std::string greeting;
    if (const auto wrong = join_words({"hello", chosen.connect.user}, greeting)) {
        throw CLI::ValidationError("--user", *wrong);
    }
    const char* const usual = from_environment(app, "--host", "SCHED_HOST");
    const bool has_file = !chosen.hosts_file.empty();
    if (has_file && app.count("--host") != 0) {
        throw CLI::ValidationError("--hosts", "cannot be used together with --host");
    }
    try {
        if (!has_file) {
            chosen.hosts = parse_hosts(usual != nullptr ? usual : chosen.host_list, chosen.port);
        } else if (!chosen.is_exporter()) {  // the exporter reads it itself: standard input can be read only once
            chosen.hosts = read_hosts(chosen.hosts_file, chosen.port);
        }
    } catch (const std::runtime_error& problem) {
        throw CLI::ValidationError(has_file ? "--hosts" : usual != nullptr ? "SCHED_HOST" : "--host", problem.what());
    }
    chosen.several = chosen.hosts.size() > 1 || !chosen.hosts_file.empty();
}

// Refuses what makes no sense together.
void check_settings(const settings& chosen) {
    const bool is_own = chosen.what != task::words;
    if (is_own && !chosen.words.empty()) {
        throw CLI::ExtrasError(chosen.words);
    }
    if (chosen.json && chosen.words.empty() && chosen.what != task::follow && !chosen.list) {
        throw CLI::RequiresError("--json", json_commands);
    }
    const bool for_one = chosen.what == task::metrics ? !chosen.is_exporter() : !is_own;
    if (chosen.several && chosen.words.empty() && for_one) {
        throw CLI::ValidationError(
            "several hosts", "need a command, `watch`, `follow` or `check`; everything else works with one host only");
    }
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

// Parses the options. Returns the command words. CLI11 expects the arguments in reverse order.
std::vector<std::string> parse_line(CLI::App& app, const std::vector<std::string>& arguments) {
    app.prefix_command();  // stop at the first word that is neither an option nor a subcommand
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    std::vector<std::string> words = app.remaining();
    if (words.empty() || find_daemon_word(words.front()) == nullptr) {
        return words;
    }
    // The scheduler's own words have no options, so options of the client may follow them, too.
    for (CLI::App* subcommand : app.get_subcommands(nullptr)) {
        subcommand->disabled();  // `modcntl watch off` names a module
    }
    app.prefix_command(false);
    app.allow_extras();
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    return app.remaining();
}

// Refuses an option of the client among a module's words: it would be sent to the module, and the command would run on
// another host than the operator meant, without a message. Behind a word of the scheduler, any word that looks like an
// option is a typing mistake, which the scheduler would ignore without a message.
void check_words(const CLI::App& app, const std::vector<std::string>& words) {
    if (words.empty()) {
        return;
    }
    if (words.front().starts_with("-")) {
        throw CLI::ExtrasError(words);
    }
    const bool is_internal = find_daemon_word(words.front()) != nullptr;
    for (const std::string& word : words) {
        const std::size_t name = word.find_first_not_of('-');
        const bool looks_like_one =
            (name == 1 || name == 2) && std::isalpha(static_cast<unsigned char>(word[name])) != 0;
        if (is_internal ? looks_like_one : option_of(app, word) != nullptr) {
            const std::string why = is_internal ? " is not an option of schedctl"
                                                : " is an option of schedctl and must be before a module's words";
            throw CLI::ValidationError(word + why + "; to send it as a word: schedctl -- " +
                                       CLI::detail::join(words, " "));
        }
    }
}

// Prints a help or version text. A failed write of it gives an exit code as for any other output.
int finish(const CLI::App& app, const CLI::ParseError& problem) {
    const bool asked_for = app.exit(problem) == 0;
    const int usage = app.got_subcommand("check") ? static_cast<int>(plugin_unknown) : exit_usage;
    return asked_for && flush_output() ? 0 : usage;
}

// Prints what may stand in place of the last argument.
int complete(CLI::App& app, settings& chosen, std::vector<std::string> arguments) {
    const std::string last = arguments.empty() ? "" : arguments.back();
    arguments.resize(arguments.empty() ? 0 : arguments.size() - 1);
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    std::vector<std::string> modules;  // of the hosts on the line, as far as they are known
    try {
        parse_line(app, {arguments.begin(), mark});
        if (chosen.hosts_file != "-") {  // the shell's own input
            read_environment(app, chosen);
        }
        modules = kept_modules(chosen.hosts);
    } catch (const CLI::ParseError&) {
        // A line that is still being typed may be wrong. Then no modules are offered.
    }
    std::vector<std::string> words = app.remaining();
    std::erase_if(words, [](const std::string& word) { return word.starts_with("-"); });
    words.insert(words.end(), mark == arguments.end() ? mark : mark + 1, arguments.end());
    print_completions(app, arguments, last, words, modules);
    return flush_output() ? 0 : exit_usage;
}

}  // namespace

std::optional<int> parse_options(int argc, char** argv, settings& chosen) {
    // The entry of the services database, else the scheduler's default.
    const servent* const entry = getservbyname("vgdsched", "tcp");
    chosen.port = entry != nullptr ? ntohs(static_cast<std::uint16_t>(entry->s_port)) : 9980;
    CLI::App app(description, "schedctl");
    app.footer("Exit codes: see schedctl(1).");
    app.failure_message([](const CLI::App*, const CLI::Error& problem) {
        return "schedctl: " + std::string(problem.what()) + "\nRun with --help for more information.\n";
    });
    app.set_version_flag("-V,--version", "schedctl " SCHED_VERSION, "Show the version and end");
    app.get_formatter()->label("SUBCOMMAND", "WORD... | COMMAND");
    add_options(app, chosen);
    add_live_commands(app, chosen);
    add_metrics(app, chosen);
    add_check(app, chosen);
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (!arguments.empty() && arguments[0] == "--complete") {
        return complete(app, chosen, {arguments.begin() + 1, arguments.end()});
    }
    const auto mark = std::find(arguments.begin(), arguments.end(), "--");
    try {
        chosen.words = parse_line(app, {arguments.begin(), mark});
        check_words(app, chosen.words);
        if (chosen.list) {
            chosen.what = task::list;
        } else if (chosen.what == task::watch && chosen.json) {
            chosen.what = task::follow;  // its old name
        }
        if (mark != arguments.end()) {
            chosen.words.insert(chosen.words.end(), mark + 1, arguments.end());
        }
        read_environment(app, chosen);
        check_settings(chosen);
    } catch (const CLI::ParseError& problem) {
        return finish(app, problem);
    }
    return std::nullopt;
}
