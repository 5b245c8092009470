#include "watch/watch_view.h"

#include "term/screen.h"

#include <algorithm>
#include <cstdio>

namespace client {

namespace {

const char* colour_of(const condition& c) {
    if (!is_alarm(c)) {
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

std::size_t draw_host(const host_row& host, const std::string& notice,
                      const std::deque<listed_message>& messages) {
    canvas page;
    page.line(host.label + "  " + now_date().substr(11, 8) + "  Ctrl-C quits", bold);
    if (!host.trouble.empty()) {
        page.line(host.trouble + (host.is_silent ? "; waiting" : "; trying again"), red);
    }
    if (!notice.empty()) {
        page.line(notice, yellow);
    }
    draw_conditions(host.conditions, page);
    page.line("Messages: " + std::to_string(messages.size()), bold);
    const std::size_t shown = std::min(page.rows_left(), messages.size());
    std::for_each(messages.end() - static_cast<std::ptrdiff_t>(shown), messages.end(),
                  [&page](const listed_message& m) {
                      const message& what = m.received.what;
                      page.line(what.date + " " + what.text, colour_of(what));
                  });
    return page.show() ? shown : 0;
}

}  // namespace client
