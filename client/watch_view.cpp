#include "watch_view.h"

#include "answer.h"
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

}  // namespace

void draw(const watch_picture& picture) {
    canvas page;
    page.line(picture.title + "  " + now_date().substr(11, 8) + "  Ctrl-C leaves", bold);
    if (!picture.trouble.empty()) {
        page.line(picture.trouble + "; trying again", red);
    }
    for (const condition& c : picture.conditions) {
        char row[96];
        std::snprintf(row, sizeof row, "%-9s %s  %s", c.name.c_str(), c.since.c_str(),
                      age_of(c.since).c_str());
        page.line(row, colour_of(c));
    }
    page.line("Messages: " + std::to_string(picture.messages.size()), bold);
    const std::size_t room = page.rows_left();
    const std::size_t count = picture.messages.size();
    for (std::size_t i = count > room ? count - room : 0; i < count; ++i) {
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
    if (!write_all(STDOUT_FILENO, (terminal ? fit(text, text.size() * 4) : text) + "\n")) {
        std::exit(exit_usage);
    }
}

}  // namespace client
