#include "monitor/collect.h"
#include "monitor/monitor.h"
#include "options/options.h"
#include "term/text.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr const char* state_names[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
static_assert(std::size(state_names) == plugin_unknown + 1);

// True when the list contains the condition or "all"; "none" matches nothing.
bool names(const std::vector<std::string>& list, const char* condition_name) {
    return std::any_of(list.begin(), list.end(),
                       [&](const std::string& word) { return word == "all" || word == condition_name; });
}

int level_of(const settings& chosen, const char* name) {
    return names(chosen.critical, name) ? plugin_critical : names(chosen.warning, name) ? plugin_warning : plugin_ok;
}

// Replaces line feeds and bars: a bar would begin the performance data.
std::string one_line(const std::string& text) {
    std::string line = fit(text);
    std::replace(line.begin(), line.end(), '|', '/');
    return line;
}

// The performance data: for each condition its value and, in the field of its level, the threshold 0.
std::string performance_of(const settings& chosen, const snapshot& known) {
    std::string text;
    for (const char* name : condition_names) {
        const int level = level_of(chosen, name);
        text += std::string(name) + (known.find(name) != nullptr ? "=1;" : "=0;") +
                (level == plugin_warning ? "0;" : ";") + (level == plugin_critical ? "0;" : ";") + "0;1 ";
    }
    char rest[96];
    std::snprintf(rest, sizeof rest, "answer_time=%.6fs;;;0 lost=%luc;;;0", known.answer_seconds, known.totals.lost);
    return text + rest;
}

// Returns the plugin state and sets the line to print.
int judge(const settings& chosen, const snapshot& known, std::string& line) {
    if (!known.up) {
        line = one_line(known.problem);
        // A fault of this client or its configuration says nothing about the scheduler.
        return known.is_own_fault()            ? plugin_unknown
               : known.failure == exit_silence ? chosen.timeout_level
                                               : plugin_critical;
    }
    int worst = plugin_ok;
    for (const char* name : condition_names) {
        if (const condition* const set = known.find(name)) {
            line += (line.empty() ? "" : ", ") + set->name + " since " + set->since;
            worst = std::max(worst, level_of(chosen, name));
        }
    }
    if (line.empty()) {
        line = "no condition is set";
    }
    if (!known.messages.empty()) {
        line += "; newest message: " + one_line(known.messages.back().text);
    }
    // A bar in any line but the first would make performance data of all that follows.
    line += chosen.several ? "" : " | " + performance_of(chosen, known);
    return worst;
}

}  // namespace

int run_check(const settings& chosen) try {
    const std::vector<snapshot> known = collect(chosen);
    std::string lines;
    int worst = plugin_ok;
    // As in other plugins that check many things: a known fault is worse than an unknown state.
    constexpr int ranks[] = {0, 2, 3, 1};
    for (std::size_t host = 0; host < known.size(); ++host) {
        std::string line;
        const int state = judge(chosen, known[host], line);
        worst = ranks[worst] < ranks[state] ? state : worst;
        lines += std::string("SCHED ") + state_names[state] + " - " + chosen.prefix_of(host) + line + "\n";
    }
    return write_all(STDOUT_FILENO, lines) ? worst : plugin_unknown;
} catch (const std::runtime_error& problem) {
    std::printf("SCHED UNKNOWN - %s\n", one_line(problem.what()).c_str());
    return plugin_unknown;
}
