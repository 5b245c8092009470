#include "options/completion.h"

#include "protocol/words.h"

#include <CLI/CLI.hpp>
#include <cstdio>

namespace client {

namespace {

using word_list = std::vector<std::string>;

// The arguments before the one to complete.
struct typed_line {
    word_list options;                  // with their values
    word_list command;                  // the words of a command
    const CLI::App* used = nullptr;     // the client's own command among them
    const CLI::Option* open = nullptr;  // the last option, when its value is to be completed
    bool only_words = false;            // after "--"
};

const CLI::Option* option_of(const CLI::App& app, const typed_line& line, const std::string& word) {
    const std::string name = word.substr(0, word.find('='));
    const CLI::Option* found = line.used != nullptr ? line.used->get_option_no_throw(name) : nullptr;
    return found != nullptr ? found : app.get_option_no_throw(name);
}

typed_line read_line(const CLI::App& app, const word_list& before) {
    typed_line line;
    for (const std::string& word : before) {
        if (line.open != nullptr) {
            line.options.push_back(word);
            line.open = nullptr;
        } else if (word == "--") {
            line.only_words = true;
        } else if (!line.only_words && word.starts_with("-")) {
            const CLI::Option* const option = option_of(app, line, word);
            const bool has_value = option != nullptr && option->get_items_expected_max() > 0;
            line.options.push_back(word);
            line.open = has_value && word.find('=') == std::string::npos ? option : nullptr;
        } else {
            const auto is_it = [&word](const CLI::App* known) { return known->get_name() == word; };
            const std::vector<const CLI::App*> own = app.get_subcommands(is_it);
            line.used = line.command.empty() && !own.empty() ? own[0] : line.used;
            line.command.push_back(word);
        }
    }
    return line;
}

void print(const std::string& word, const std::string& help, const std::string& start) {
    if (word.starts_with(start)) {
        std::puts((help.empty() ? word : word + "\t" + help).c_str());
    }
}

void print_value(const CLI::Option& option) {
    const std::string kind = option.get_type_name();
    if (kind == "HOST" || kind == "FILE") {
        std::puts(kind == "HOST" ? ":host" : ":file");
    }
}

void print_options(const CLI::App& app, const std::string& start) {
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            print("--" + name, option->get_description(), start);
        }
        for (const std::string& name : option->get_snames()) {
            print("-" + name, option->get_description(), start);
        }
    }
}

void print_first_words(const CLI::App& app, const std::string& start) {
    for (const CLI::App* known : app.get_subcommands([](const CLI::App*) { return true; })) {
        print(known->get_name(), known->get_description(), start);
    }
    for (const daemon_word& known : daemon_words()) {
        print(std::string(known.word), std::string(known.help), start);
    }
}

}  // namespace

void print_completions(
    const CLI::App& app, const std::vector<std::string>& arguments,
    const std::function<std::vector<std::string>(const std::vector<std::string>& options)>& modules) {
    const std::string last = arguments.empty() ? "" : arguments.back();
    const typed_line line =
        read_line(app, arguments.empty() ? word_list() : word_list{arguments.begin(), arguments.end() - 1});
    const bool is_option = !line.only_words && last.starts_with("-");
    const bool is_value = line.open == nullptr && is_option && last.find('=') != std::string::npos;
    const CLI::Option* const valued = is_value ? option_of(app, line, last) : line.open;
    if (valued != nullptr) {
        print_value(*valued);
    } else if (is_option) {
        print_options(app, last);
        if (line.used != nullptr) {
            print_options(*line.used, last);
        }
    } else if (line.used == nullptr) {
        if (line.command.empty()) {
            print_first_words(app, last);
        }
        for (const std::string& word : words_after(line.command, modules(line.options))) {
            if (!line.command.empty() || !is_internal_word(word)) {
                print(word, line.command.empty() ? "module" : "", last);
            }
        }
    }
}

}  // namespace client
