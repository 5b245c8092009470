#include "watch_view.h"

#include "answer.h"
#include "text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

namespace client {

namespace {

constexpr const char* red = "\033[1;31m";
constexpr const char* yellow = "\033[33m";
constexpr const char* bold = "\033[1m";
constexpr const char* plain = "";

// The two largest units of the time since then.
std::string age_of(const std::string& since) {
    constexpr std::pair<long, char> units[] = {{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}};
    const std::time_t then = seconds_of(since).value_or(0);
    if (then == 0) {
        return "never";
    }
    long left = std::max(0L, static_cast<long>(std::time(nullptr) - then));
    std::string text;
    int shown = 0;
    for (const auto& [seconds, sign] : units) {
        if (shown == 2 || (shown == 0 && left < seconds && seconds > 1)) {
            continue;
        }
        if (shown++ != 0) {
            text += ' ';
        }
        text += std::to_string(left / seconds);
        text += sign;
        left %= seconds;
    }
    return text;
}

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

struct canvas {
    std::size_t rows = 24;
    std::size_t columns = 80;
    bool colours = std::getenv("NO_COLOR") == nullptr;
    std::size_t used = 0;  // rows
    std::string out = "\033[H";

    void line(const std::string& text, const char* colour) {
        if (used == rows) {
            return;
        }
        if (used++ != 0) {
            out += "\n";
        }
        if (colours) {
            out += colour;
        }
        out += fit(text, columns);
        out += "\033[0m\033[K";
    }
};

}  // namespace

void screen::enter() {
    // First the keyboard: a job in the background is stopped here, before it draws.
    if (tcgetattr(STDIN_FILENO, &usual_) == 0) {
        termios keys = usual_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VQUIT] = _POSIX_VDISABLE;  // would leave the terminal as it is now
        keyboard_ = tcsetattr(STDIN_FILENO, TCSADRAIN, &keys) == 0 ? STDIN_FILENO : -1;
    }
    entered_ = true;
    write_all(STDOUT_FILENO, "\033[?1049h\033[?25l\033[2J");
}

void screen::leave() {
    if (!entered_) {
        return;
    }
    entered_ = false;
    write_all(STDOUT_FILENO, "\033[?25h\033[?1049l");
    if (keyboard_ >= 0) {
        tcsetattr(keyboard_, TCSAFLUSH, &usual_);  // what was typed was not meant for the shell
    }
}

bool screen::left_by_key() const {
    char keys[64];
    const ssize_t n = read(keyboard_, keys, sizeof keys);
    return n <= 0 || std::string_view(keys, static_cast<std::size_t>(n)).find('q') != std::string_view::npos;
}

void draw(const watch_picture& picture) {
    canvas page;
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        page.rows = size.ws_row;
        page.columns = size.ws_col;
    }
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
    const std::size_t room = page.rows - page.used;
    const std::size_t count = picture.messages.size();
    for (std::size_t i = count > room ? count - room : 0; i < count; ++i) {
        const message& m = picture.messages[i];
        page.line(m.date + " " + m.text, colour_of(m));
    }
    write_all(STDOUT_FILENO, page.out + "\033[J");
}

void print_line(const message& line) {
    std::string text = line.date + " " + line.text;
    if (isatty(STDOUT_FILENO) == 1) {
        text = fit(text, text.size() * 4);
    }
    if (!write_all(STDOUT_FILENO, text + "\n")) {
        std::exit(exit_usage);
    }
}

}  // namespace client
