// The scheduler's own words, in one table, and the request line of a command.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

// The limits of a request line; the scheduler would refuse a longer one or read its end as another command.
constexpr std::size_t most_words = 15;
constexpr std::size_t longest_line = 16382;

// A word that the scheduler answers itself, if its module list says so. Any other word is that of a module.
struct daemon_word {
    std::string_view word;
    // The answer never waits for a module or another host: if none comes within some seconds, the scheduler is
    // stalled.
    bool at_once;
    std::string_view help;
    // What may follow: words separated by blanks; MODULE stands for the name of any module. Unused ones are empty.
    std::string_view forms[2];
};

// Options, completion and the session's help are made from this table.
inline constexpr daemon_word daemon_words[] = {
    {"status", true, "conditions and messages", {}},
    {"modcntl", true, "list the modules, or switch one", {"MODULE on", "MODULE off"}},
    {"debug", true, "tables of the scheduler", {"timer", "hmi all"}},
    {"quit", true, "end the connection", {}},
    {"restart", true, "restart the scheduler", {"sched"}},
    {"lock", true, "take the lock of the operators", {}},
    {"unlock", true, "give the lock back", {}},
    {"show", true, "connections, or allowed networks", {"ip", "allowed_ip"}},
    {"hello", false, "greet with a name", {}},
    {"login", true, "log in by hand", {}},
    {"ipset", true, "speak for another address", {}},
    {"send", true, "forward a line to the log host", {}},
    {"res_data", false, "forward resource data", {}},
    {"res_send", true, "forward resource data", {}},
};

// Returns the entry of a word; null for the word of a module.
const daemon_word* find_daemon_word(std::string_view word);

// Returns the words that may follow these words of a command, sorted. modules: the names of the scheduler's modules.
std::vector<std::string> words_after(const std::vector<std::string>& earlier, const std::vector<std::string>& modules);

// Splits a typed line at blanks and appends the words; '…' and "…" keep blanks in a word. Returns false when a quote is
// not closed.
bool split_words(std::string_view line, std::vector<std::string>& words);

// Joins the words, at least one, with TABs. Returns the reason when they cannot be sent as one line, or would never be
// answered.
std::optional<std::string> join_words(const std::vector<std::string>& words, std::string& line);
