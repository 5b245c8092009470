// Command words: from what the operator types to a request line.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace client {

// What the scheduler takes in one line; more would be refused or read as another command.
constexpr std::size_t most_words = 15;
constexpr std::size_t longest_line = 16382;

// A word that the scheduler answers itself, when its module list says so. Every other word names a module.
struct internal_word {
    std::string_view word;
    bool at_once;  // the answer waits for no module and for no other host
};

constexpr internal_word internal_words[] = {
    {"status", true}, {"modcntl", true}, {"debug", true},     {"quit", true},     {"restart", true},
    {"lock", true},   {"unlock", true},  {"show", true},      {"hello", false},   {"login", true},
    {"ipset", true},  {"send", true},    {"res_data", false}, {"res_send", true},
};

bool is_internal_word(std::string_view word);

// true when no answer within seconds means that the scheduler itself is stalled.
bool is_answered_at_once(std::string_view word);

// Cuts a typed line at blanks; '…' and "…" keep blanks in a word. false when a quote is left open.
bool split_words(std::string_view line, std::vector<std::string>& words);

// Joins the words, at least one, with TABs. false when they cannot be sent as one line, or would never be
// answered; problem says why.
bool join_words(const std::vector<std::string>& words, std::string& line, std::string& problem);

}  // namespace client
