// Command words: splitting typed text, and joining words to a request line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace client {

// The limits of a request line; the scheduler would refuse a longer one or read its end as another command.
constexpr std::size_t most_words = 15;
constexpr std::size_t longest_line = 16382;

// A word that the scheduler answers itself, if its module list says so. Any other word is that of a module.
struct internal_word {
    std::string_view word;
    bool at_once;  // the answer never waits for a module or another host
};

constexpr internal_word internal_words[] = {
    {"status", true}, {"modcntl", true}, {"debug", true},     {"quit", true},     {"restart", true},
    {"lock", true},   {"unlock", true},  {"show", true},      {"hello", false},   {"login", true},
    {"ipset", true},  {"send", true},    {"res_data", false}, {"res_send", true},
};

bool is_internal_word(std::string_view word);

// Returns true for a word that is answered at once: without an answer after some seconds, the scheduler is stalled.
bool is_answered_at_once(std::string_view word);

// Splits a typed line at blanks; '…' and "…" keep blanks in a word. Returns false when a quote is not closed.
bool split_words(std::string_view line, std::vector<std::string>& words);

// Joins the words, at least one, with TABs. Returns false when they cannot be sent as one line, or would never be
// answered; problem gets the reason.
bool join_words(const std::vector<std::string>& words, std::string& line, std::string& problem);

}  // namespace client
