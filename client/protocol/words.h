// The scheduler's own words, in one table, and the request line of a command.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace client {

// The limits of a request line; the scheduler would refuse a longer one or read its end as another command.
constexpr std::size_t most_words = 15;
constexpr std::size_t longest_line = 16382;

// A word that the scheduler answers itself, if its module list says so. Any other word is that of a module.
struct daemon_word {
    std::string_view word;
    bool at_once;  // the answer never waits for a module or another host
    std::string_view help;
    // What may follow: words separated by blanks; MODULE stands for the name of any module. Unused ones are empty.
    std::string_view forms[3];
};

// Options, completion and the session's help are made from this table.
std::span<const daemon_word> daemon_words();

bool is_internal_word(std::string_view word);

// Returns true for a word that is answered at once: without an answer after some seconds, the scheduler is stalled.
bool is_answered_at_once(std::string_view word);

// Returns the words that may follow these words of a command, sorted. modules: the names of the scheduler's modules.
std::vector<std::string> words_after(const std::vector<std::string>& earlier,
                                     const std::vector<std::string>& modules);

// Splits a typed line at blanks; '…' and "…" keep blanks in a word. Returns false when a quote is not closed.
bool split_words(std::string_view line, std::vector<std::string>& words);

// Joins the words, at least one, with TABs. Returns the reason when they cannot be sent as one line, or would never be
// answered.
std::optional<std::string> join_words(const std::vector<std::string>& words, std::string& line);

}  // namespace client
