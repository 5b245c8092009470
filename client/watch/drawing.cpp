#include "watch/drawing.h"

#include "term/screen.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace {

constexpr std::size_t shown_date = 19;    // without the zone
constexpr std::size_t widest_label = 40;  // a longer label shifts only its own line

// From the worst to the best: the lines are sorted by it.
enum class health { unreachable, silent, error, condition, lost, well, unknown };

// The name and the colour of each.
constexpr std::pair<const char*, const char*> healths[] = {
    {"down", red},    {"no answer", red}, {"error", red},   {"condition", yellow},
    {"lost", yellow}, {"ok", plain},      {"asked", plain},
};

// The text is made once for each drawing: the filter and the page both need it.
struct described_row {
    std::size_t host;
    health state;
    std::string text;
    std::size_t message_at = 0;  // where the newest message begins in the text; 0: there is none
};

health health_of(const condition& c) {
    return !is_fault(c.name) ? health::well : c.name == "error" ? health::error : health::condition;
}

const char* colour_of(health state) { return healths[static_cast<std::size_t>(state)].second; }

// Returns the text for the state of a host, and sets the state.
std::string state_text(const host_row& row, health& state) {
    // The conditions of a host that cannot be reached may no longer hold.
    if (!row.since.empty()) {
        state = row.known.failure == exit_silence ? health::silent : health::unreachable;
        const std::string age = age_of(row.since) + ", since " + row.since.substr(0, shown_date);
        return state == health::silent ? "no answer " + age : "down " + age + ": " + row.known.problem;
    }
    if (!row.known.up) {
        state = health::unknown;
        return "asked";
    }
    state = row.lost != 0 ? health::lost : health::well;
    bool has_fault = false;
    std::string text;
    for (const condition& c : row.known.conditions) {
        state = std::min(state, health_of(c));
        has_fault = has_fault || is_fault(c.name);
        if (c.name != "confdate") {  // every host has this one
            text += ", " + c.name + " " + age_of(c.since);
        }
    }
    return has_fault ? text.substr(2) : "ok" + text;
}

// A text that is too long is shown whole; it shifts the rest of its line.
std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text + "  ";
}

described_row describe(std::size_t host, const host_row& row, std::size_t label_width) {
    constexpr std::size_t state_width = 20;
    described_row line{host, health::unknown, padded(row.label, label_width)};
    line.text += padded(state_text(row, line.state), state_width);
    if (row.lost != 0) {
        line.text += "lost " + std::to_string(row.lost) + "  ";
    }
    if (!row.newest.text.empty()) {
        line.message_at = line.text.size();
        line.text += row.newest.date.substr(0, shown_date) + " " + row.newest.text;
    }
    return line;
}

// Describes all hosts, and counts their states in the heading. Returns those that the filter lets through, the worst
// first.
std::vector<described_row> chosen_rows(const std::vector<host_row>& rows, const std::string& filter,
                                       std::string& heading) {
    std::size_t label_width = 0;
    for (const host_row& row : rows) {
        label_width = std::max(label_width, std::min(row.label.size(), widest_label));
    }
    std::array<std::size_t, std::size(healths)> counts{};  // of all hosts, also those that the filter hides
    std::vector<described_row> lines;
    for (std::size_t host = 0; host < rows.size(); ++host) {
        described_row line = describe(host, rows[host], label_width);
        ++counts[static_cast<std::size_t>(line.state)];
        if (strcasestr(line.text.c_str(), filter.c_str()) != nullptr) {
            lines.push_back(std::move(line));
        }
    }
    heading = std::to_string(rows.size()) + " hosts";
    for (std::size_t state = 0; state < counts.size(); ++state) {
        if (counts[state] != 0) {
            heading += ", " + std::to_string(counts[state]) + " " + healths[state].first;
        }
    }
    // Stable, so that hosts of the same state stay in the operator's order.
    std::stable_sort(lines.begin(), lines.end(),
                     [](const described_row& a, const described_row& b) { return a.state < b.state; });
    return lines;
}

// The time of day tells when the view was drawn.
std::string time_of_day() { return "  " + now_date().substr(11, 8) + "  "; }

}  // namespace

std::vector<event*> draw_host(const host_row& host, const std::string& notice, std::deque<listed_message>& messages) {
    canvas page;
    page.line(host.label + time_of_day() + "Ctrl-C quits", bold);
    if (!host.since.empty()) {
        const bool is_silent = host.known.failure == exit_silence;
        page.line(host.known.problem + (is_silent ? "; waiting" : "; trying again"), red);
    }
    if (!notice.empty()) {
        page.line(notice, yellow);
    }
    for (const condition& c : host.known.conditions) {
        char row[96];
        std::snprintf(row, sizeof row, "%-9s %s  %s", c.name.c_str(), c.since.c_str(), age_of(c.since).c_str());
        page.line(row, colour_of(health_of(c)));
    }
    page.line("Messages: " + std::to_string(messages.size()), bold);
    std::vector<event*> shown;
    for (std::size_t i = messages.size() - std::min(page.rows_left(), messages.size()); i < messages.size(); ++i) {
        event& m = messages[i].what;
        shown.push_back(&m);
        const bool warns = m.priority == warning_level && m.lost == 0;
        page.line(m.date + " " + m.text, m.priority == error_level ? red : warns ? yellow : plain);
    }
    return page.show() ? shown : std::vector<event*>();
}

std::vector<event*> draw_hosts(std::vector<host_row>& rows, const std::string& notice, host_keys& keys) {
    std::string heading;
    const std::vector<described_row> lines = chosen_rows(rows, keys.filter, heading);
    canvas page;
    page.line(heading + time_of_day() + "q quits, arrows scroll, / filters", bold);
    if (!notice.empty()) {
        page.line(notice, yellow);
    }
    if (keys.editing || !keys.filter.empty()) {
        page.line("/" + keys.filter + (keys.editing ? "_" : "") + "  " + std::to_string(lines.size()) + " shown", bold);
    }
    keys.page = page.rows_left();
    // The filter may have made the list shorter since the last key.
    keys.top = std::min(keys.top, lines.size() > keys.page ? lines.size() - keys.page : 0);
    std::vector<event*> shown;
    for (std::size_t i = keys.top; i < lines.size() && page.rows_left() != 0; ++i) {
        page.line(lines[i].text, colour_of(lines[i].state));
        // The date alone is no message.
        if (lines[i].message_at + shown_date + 1 < page.columns()) {
            shown.push_back(&rows[lines[i].host].newest);
        }
    }
    return page.show() ? shown : std::vector<event*>();
}

void host_keys::handle(std::string_view keys) {
    while (!keys.empty()) {
        keys.remove_prefix(handle_first(keys));
    }
}

// Carries out the first key. Returns its number of bytes.
std::size_t host_keys::handle_first(std::string_view keys) {
    constexpr std::size_t far = 1000000;  // more lines than hosts; draw_hosts limits the position
    // Two forms of an arrow key: terminals in application mode send the one with O.
    const struct {
        std::string_view bytes;
        std::size_t up;
        std::size_t down;
    } moves[] = {{"\033[A", 1, 0},     {"\033OA", 1, 0},     {"\033[B", 0, 1},   {"\033OB", 0, 1},
                 {"\033[5~", page, 0}, {"\033[6~", 0, page}, {"\033[H", far, 0}, {"\033[F", 0, far}};
    for (const auto& move : moves) {
        if (keys.starts_with(move.bytes)) {
            top = (top > move.up ? top - move.up : 0) + move.down;
            return move.bytes.size();
        }
    }
    const char key = keys[0];
    const bool is_escape = key == '\033';
    if (!editing) {
        editing = key == '/';
        quits = quits || key == 'q';
        filter = editing || is_escape ? "" : filter;
    } else if (key == '\n' || key == '\r' || is_escape) {
        editing = false;
        filter = is_escape ? "" : filter;
    } else if (key == '\b' || key == '\177') {  // the Backspace key of most terminals sends the second
        filter.resize(filter.size() - std::min<std::size_t>(filter.size(), 1));
    } else {
        filter += key;
    }
    return 1;
}
