#include "watch/hosts_view.h"

#include "term/screen.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace client {

namespace {

constexpr std::size_t shown_date = 19;    // without the zone
constexpr std::size_t widest_label = 40;  // a longer label shifts only its own line

// From the worst to the best: the lines are sorted by it.
enum class health { unreachable, silent, error, condition, lost, well, unknown };

// The text is made once for each drawing: the filter and the page both need it.
struct described_row {
    std::size_t host;
    health state;
    std::string text;
    std::size_t message_at = 0;  // where the newest message begins in the text; 0: there is none
};

health health_of(const host_row& row) {
    if (!row.known) {
        return health::unknown;
    }
    // The conditions of a host that cannot be reached may no longer hold.
    if (!row.trouble.empty()) {
        return row.is_silent ? health::silent : health::unreachable;
    }
    health worst = row.lost != 0 ? health::lost : health::well;
    for (const condition& c : row.conditions) {
        if (is_alarm(c)) {
            worst = std::min(worst, c.name == "error" ? health::error : health::condition);
        }
    }
    return worst;
}

std::string state_text(const host_row& row) {
    if (!row.known) {
        return "asked";
    }
    if (!row.trouble.empty()) {
        const std::string age = age_of(row.since) + ", since " + row.since.substr(0, shown_date);
        return row.is_silent ? "no answer " + age : "down " + age + ": " + row.trouble;
    }
    std::string alarms;
    std::string others;
    for (const condition& c : row.conditions) {
        if (is_alarm(c)) {
            alarms += (alarms.empty() ? "" : ", ") + c.name + " " + age_of(c.since);
        } else if (c.name != "confdate") {  // every host has this one
            others += ", " + c.name + " " + age_of(c.since);
        }
    }
    return (alarms.empty() ? "ok" : alarms) + others;
}

// A text that is too long is shown whole; it shifts the rest of its line.
std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text + "  ";
}

described_row describe(std::size_t host, const host_row& row, std::size_t label_width) {
    constexpr std::size_t state_width = 20;
    described_row line{host, health_of(row), padded(row.label, label_width)};
    const std::string state = state_text(row);
    const bool has_more = !row.newest.what.text.empty() || row.lost != 0;
    line.text += has_more ? padded(state, state_width) : state;
    if (row.lost != 0) {
        line.text += "lost " + std::to_string(row.lost) + "  ";
    }
    if (!row.newest.what.text.empty()) {
        line.message_at = line.text.size();
        line.text += row.newest.what.date.substr(0, shown_date) + " " + row.newest.what.text;
    }
    return line;
}

// True when text contains part, in upper or lower case.
bool contains_ignoring_case(std::string_view text, std::string_view part) {
    const auto is_same = [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); };
    return std::search(text.begin(), text.end(), part.begin(), part.end(), is_same) != text.end();
}

const char* colour_of(health state) {
    switch (state) {
        case health::unreachable:
        case health::silent:
        case health::error:
            return red;
        case health::condition:
        case health::lost:
            return yellow;
        default:
            return plain;
    }
}

using state_counts = std::array<std::size_t, 7>;

std::string heading(const state_counts& counts, std::size_t hosts) {
    std::string text = std::to_string(hosts) + " hosts";
    // In the order of `health`.
    constexpr const char* names[] = {"down", "no answer", "error", "condition", "lost", "ok", "asked"};
    for (std::size_t state = 0; state < counts.size(); ++state) {
        if (counts[state] != 0) {
            text += ", " + std::to_string(counts[state]) + " " + names[state];
        }
    }
    // The time of day tells when the view was drawn.
    return text + "  " + now_date().substr(11, 8) + "  q quits, arrows scroll, / filters";
}

// Describes all hosts and counts their states. Returns those that the filter lets through, the worst first.
std::vector<described_row> chosen_rows(const std::vector<host_row>& rows, const std::string& filter,
                                       state_counts& counts) {
    std::size_t label_width = 0;
    for (const host_row& row : rows) {
        label_width = std::max(label_width, std::min(row.label.size(), widest_label));
    }
    std::vector<described_row> lines;
    for (std::size_t host = 0; host < rows.size(); ++host) {
        described_row line = describe(host, rows[host], label_width);
        // The heading counts all hosts, also those that the filter hides.
        ++counts[static_cast<std::size_t>(line.state)];
        if (contains_ignoring_case(line.text, filter)) {
            lines.push_back(std::move(line));
        }
    }
    // Stable, so that hosts of the same state stay in the operator's order.
    std::stable_sort(lines.begin(), lines.end(),
                     [](const described_row& a, const described_row& b) { return a.state < b.state; });
    return lines;
}

}  // namespace

std::vector<std::size_t> draw_hosts(const std::vector<host_row>& rows, const std::string& notice,
                                    host_keys& keys) {
    state_counts counts{};
    const std::vector<described_row> lines = chosen_rows(rows, keys.filter, counts);
    canvas page;
    page.line(heading(counts, rows.size()), bold);
    if (!notice.empty()) {
        page.line(notice, yellow);
    }
    if (keys.editing || !keys.filter.empty()) {
        page.line(
            "/" + keys.filter + (keys.editing ? "_" : "") + "  " + std::to_string(lines.size()) + " shown",
            bold);
    }
    keys.page = page.rows_left();
    // The filter may have made the list shorter since the last key.
    keys.top = std::min(keys.top, lines.size() > keys.page ? lines.size() - keys.page : 0);
    std::vector<std::size_t> shown;
    for (std::size_t i = keys.top; i < lines.size() && page.rows_left() != 0; ++i) {
        page.line(lines[i].text, colour_of(lines[i].state));
        // The date alone is no message.
        if (lines[i].message_at != 0 && lines[i].message_at + shown_date + 1 < page.columns()) {
            shown.push_back(lines[i].host);
        }
    }
    return page.show() ? shown : std::vector<std::size_t>();
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
    if (editing) {
        edit(keys[0]);
    } else if (keys[0] == '/') {
        editing = true;
        filter.clear();
    } else if (keys[0] == 'q') {
        quits = true;
    } else if (keys[0] == '\033') {
        filter.clear();
    }
    return 1;
}

void host_keys::edit(char key) {
    constexpr char backspace = '\b';
    constexpr char erase = '\177';  // the Backspace key of most terminals
    constexpr char escape = '\033';
    if (key == '\n' || key == '\r' || key == escape) {
        editing = false;
        filter = key == escape ? "" : filter;
    } else if (key == backspace || key == erase) {
        if (!filter.empty()) {
            filter.pop_back();
        }
    } else {
        filter += key;
    }
}

}  // namespace client
