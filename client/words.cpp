#include "words.h"

#include <algorithm>
#include <iterator>

namespace client {

bool is_internal_word(std::string_view word) {
    return std::any_of(std::begin(internal_words), std::end(internal_words),
                       [word](const internal_word& known) { return known.word == word; });
}

bool is_answered_at_once(std::string_view word) {
    return std::any_of(std::begin(internal_words), std::end(internal_words),
                       [word](const internal_word& known) { return known.at_once && known.word == word; });
}

bool split_words(std::string_view line, std::vector<std::string>& words) {
    char quote = '\0';    // the open quote, or NUL
    bool inside = false;  // in a word; an empty pair of quotes is a word too
    words.clear();
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

bool join_words(const std::vector<std::string>& words, std::string& line, std::string& problem) {
    line.clear();
    problem.clear();
    // A tab separates words and a carriage return ends the line; the scheduler drops line feeds and NULs silently.
    for (const std::string& word : words) {
        if (word.find_first_of(std::string_view("\t\r\n\0", 4)) != std::string::npos) {
            problem = "a word cannot contain a tab, a line end or a NUL";
            return false;
        }
        if (&word != &words.front()) {
            line += '\t';
        }
        line += word;
    }
    // The scheduler refuses more than 15 fields, and reads a line that is too long as two.
    if (words.size() > most_words) {
        problem = "more than " + std::to_string(most_words) + " words";
    }
    if (line.size() > longest_line) {
        problem = "more than " + std::to_string(longest_line) + " characters";
    }
    // Any other restart has no answer, so the client would wait for ever.
    if (words[0] == "restart" && (words.size() == 1 || words[1] != "sched")) {
        problem = "restart needs the word sched";
    }
    return problem.empty();
}

}  // namespace client
