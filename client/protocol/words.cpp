#include "protocol/words.h"

#include <algorithm>
#include <iterator>
#include <set>

const daemon_word* find_daemon_word(std::string_view word) {
    const daemon_word* const found = std::find_if(std::begin(daemon_words), std::end(daemon_words),
                                                  [word](const daemon_word& known) { return known.word == word; });
    return found != std::end(daemon_words) ? found : nullptr;
}

std::vector<std::string> words_after(const std::vector<std::string>& earlier, const std::vector<std::string>& modules) {
    const auto fits = [](const std::string& typed, const std::string& word) {
        return word == "MODULE" || word == typed;
    };
    std::set<std::string> words;  // a module may have the name of an internal word
    for (const daemon_word& known : daemon_words) {
        for (const std::string_view form : known.forms) {
            std::vector<std::string> all;
            split_words(std::string(known.word).append(" ").append(form), all);
            if (all.size() > earlier.size() && std::equal(earlier.begin(), earlier.end(), all.begin(), fits)) {
                words.insert(all[earlier.size()]);
            }
        }
    }
    if (words.erase("MODULE") != 0 || earlier.empty()) {
        words.insert(modules.begin(), modules.end());
    }
    return {words.begin(), words.end()};
}

bool split_words(std::string_view line, std::vector<std::string>& words) {
    char quote = '\0';    // the open quote, or NUL
    bool inside = false;  // in a word; an empty pair of quotes is a word too
    for (const char c : line) {
        if (quote == '\0' && (c == ' ' || c == '\t' || c == '\n')) {
            inside = false;
            continue;
        }
        if (!inside) {
            words.emplace_back();
        }
        inside = true;
        if (quote == '\0' ? c == '\'' || c == '"' : c == quote) {
            quote = quote == '\0' ? c : '\0';
        } else {
            words.back() += c;
        }
    }
    return quote == '\0';
}

std::optional<std::string> join_words(const std::vector<std::string>& words, std::string& line) {
    line.clear();
    // A tab separates words and a carriage return ends the line; the scheduler drops line feeds and NULs silently.
    for (const std::string& word : words) {
        if (word.find_first_of(std::string_view("\t\r\n\0", 4)) != std::string::npos) {
            return "a word cannot contain a tab, a line end or a NUL";
        }
        line += (&word != &words.front() ? "\t" : "") + word;
    }
    // The scheduler refuses more than 15 fields, and reads a line that is too long as two.
    if (words.size() > most_words) {
        return "more than " + std::to_string(most_words) + " words";
    }
    if (line.size() > longest_line) {
        return "more than " + std::to_string(longest_line) + " characters";
    }
    // Any other restart has no answer, so the client would wait for ever.
    if (words[0] == "restart" && (words.size() == 1 || words[1] != "sched")) {
        return "restart needs the word sched";
    }
    return std::nullopt;
}
