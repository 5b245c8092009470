// How the live view looks: a picture that is redrawn on a terminal, or one line for each change.
#pragma once

#include "report.h"

#include <deque>
#include <string>
#include <termios.h>
#include <vector>

namespace client {

constexpr std::size_t most_messages = 1000;  // kept for the view; the scheduler hands each over only once

struct watch_picture {
    std::string title;    // host and port
    std::string trouble;  // why there is no connection; empty while there is one
    std::vector<condition> conditions;
    std::deque<message> messages;  // oldest first
};

// The terminal while the picture is shown: its other screen, no cursor, keys read one by one without echo.
class screen {
public:
    screen() = default;
    ~screen() { leave(); }
    screen(const screen&) = delete;
    screen& operator=(const screen&) = delete;

    void enter();
    void leave();

    // -1 when standard input is no terminal.
    int keyboard() const { return keyboard_; }

    // Takes the keys that can be read; true when one of them is q, or no more can come.
    bool left_by_key() const;

private:
    termios usual_{};
    int keyboard_ = -1;
    bool entered_ = false;
};

void draw(const watch_picture& picture);

// Date and text as one line, at once.
void print_line(const message& line);

}  // namespace client
