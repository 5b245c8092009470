#include "watch_view.h"

#include "output.h"
#include "screen.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace client {

namespace {

const char* colour_of(const condition& c) {
    if (c.name == "confdate") {
        return plain;
    }
    return c.name == "error" ? red : yellow;
}

const char* colour_of(const message& m) {
    if (m.text.starts_with('E')) {
        return red;
    }
    return m.text.starts_with('W') ? yellow : plain;
}

// Draws one row for each condition. When no row would be left for the heading and one message, the last conditions
// share one row, with only their names.
void draw_conditions(const std::vector<condition>& conditions, canvas& page) {
    constexpr std::size_t rows_below = 2;  // the heading and one message
    const std::size_t free = page.rows_left() > rows_below ? page.rows_left() - rows_below : 0;
    const std::size_t single =
        conditions.size() <= free ? conditions.size() : std::max<std::size_t>(free, 1) - 1;
    for (std::size_t i = 0; i < single; ++i) {
        const condition& c = conditions[i];
        char row[96];
        std::snprintf(row, sizeof row, "%-9s %s  %s", c.name.c_str(), c.since.c_str(),
                      age_of(c.since).c_str());
        page.line(row, colour_of(c));
    }
    std::string names;
    const char* colour = plain;
    for (std::size_t i = single; i < conditions.size(); ++i) {
        names += (names.empty() ? "" : ", ") + conditions[i].name;
        colour = colour == red ? red : colour_of(conditions[i]);
    }
    if (!names.empty()) {
        page.line(names, colour);
    }
}

}  // namespace

void draw(const watch_picture& picture) {
    canvas page;
    page.line(picture.title + "  " + now_date().substr(11, 8) + "  Ctrl-C quits", bold);
    if (!picture.trouble.empty()) {
        page.line(picture.trouble + "; trying again", red);
    }
    draw_conditions(picture.conditions, page);
    page.line("Messages: " + std::to_string(picture.messages.size()), bold);
    const std::size_t left = page.rows_left();
    const std::size_t count = picture.messages.size();
    for (std::size_t i = count > left ? count - left : 0; i < count; ++i) {
        const message& m = picture.messages[i];
        page.line(m.date + " " + m.text, colour_of(m));
    }
    page.show();
}

void print_line(const message& line) {
    print_text(line.date + " " + line.text);
}

void print_text(const std::string& text) {
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    // Not cut: an escape like \xHH makes four columns of a byte, so the limit is never reached.
    print((terminal ? fit(text, text.size() * 4) : text) + "\n");
}

}  // namespace client
