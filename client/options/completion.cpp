#include "options/completion.h"

#include "mail/replace_file.h"
#include "mail/state_file.h"
#include "protocol/listings.h"
#include "protocol/words.h"
#include "term/text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

namespace {

void print(const std::string& word, const std::string& help, const std::string& start) {
    if (word.starts_with(start)) {
        std::puts((help.empty() ? word : word + "\t" + help).c_str());
    }
}

void print_options(const CLI::App& app, const std::string& start) {
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : CLI::detail::split(option->get_name(false, true), ',')) {
            print(name, option->get_description(), start);
        }
    }
}

// Returns the option that this word names; null when there is none.
const CLI::Option* option_of(const std::vector<const CLI::App*>& apps, const std::string& word) {
    const CLI::Option* found = nullptr;
    for (const CLI::App* app : apps) {
        found = found != nullptr ? found : app->get_option_no_throw(word.substr(0, word.find('=')));
    }
    return word.starts_with("-") ? found : nullptr;
}

// Empty when there is no directory for it.
std::string path_for(const host_name& host) {
    const std::string directory = private_directory();
    return directory.empty() ? "" : directory + "/modules-" + key_of(host);
}

}  // namespace

void print_completions(const CLI::App& app, const std::vector<std::string>& before, const std::string& last,
                       const std::vector<std::string>& words, const std::vector<std::string>& modules) {
    std::vector<const CLI::App*> apps = {&app};
    for (const CLI::App* used : app.get_subcommands()) {
        apps.push_back(used);
    }
    const bool only_words = std::find(before.begin(), before.end(), "--") != before.end();
    const bool is_option = !only_words && last.starts_with("-");
    // The value of an option follows "=", or is the next word.
    const bool has_value = is_option && last.find('=') != std::string::npos;
    const bool may_be_value = !only_words && !before.empty() && before.back().find('=') == std::string::npos;
    const CLI::Option* const valued = has_value      ? option_of(apps, last)
                                      : may_be_value ? option_of(apps, before.back())
                                                     : nullptr;
    if (valued != nullptr && valued->get_items_expected_max() > 0) {
        const std::string kind = valued->get_type_name();
        if (kind == "HOST" || kind == "FILE") {
            std::puts(kind == "HOST" ? ":host" : ":file");
        }
    } else if (is_option) {
        for (const CLI::App* of : apps) {
            print_options(*of, last);
        }
    } else if (apps.size() == 1) {
        if (words.empty()) {
            for (const CLI::App* own : app.get_subcommands([](const CLI::App*) { return true; })) {
                print(own->get_name(), own->get_description(), last);
            }
            for (const daemon_word& known : daemon_words) {
                print(std::string(known.word), std::string(known.help), last);
            }
        }
        for (const std::string& word : words_after(words, modules)) {
            if (!words.empty() || find_daemon_word(word) == nullptr) {
                print(word, words.empty() ? "module" : "", last);
            }
        }
    }
}

void keep_modules(const host_name& host, std::string_view answer) try {
    std::string names;
    // The shells show these names on the terminal.
    for (const module_row& row : parse_modules(printable_text().clean(answer))) {
        names += row.name + "\n";
    }
    if (const std::string path = path_for(host); !path.empty()) {
        replace_file(path, names, 0600);
    }
} catch (const std::runtime_error&) {
    // A listing that cannot be kept is only missing in completion.
}

std::vector<std::string> kept_modules(const std::vector<host_name>& hosts) {
    std::vector<std::string> names;
    for (const host_name& host : hosts) {
        each_line(read_file(path_for(host)).value_or(""), [&names](const std::string& name) { names.push_back(name); });
    }
    return names;
}
