// The terminal while a picture is shown on it, and the lines of the picture.
#pragma once

#include <cstddef>
#include <string>
#include <termios.h>

namespace client {

// Standard output is a terminal that a picture can be drawn on.
bool can_draw();

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

    // Appends the keys that can be read; false when no more can come.
    bool take_keys(std::string& keys) const;

private:
    termios usual_{};
    int keyboard_ = -1;
    bool entered_ = false;
};

constexpr const char* red = "\033[1;31m";
constexpr const char* yellow = "\033[33m";
constexpr const char* bold = "\033[1m";
constexpr const char* plain = "";

// One picture, from the top line down, cut to the size of the terminal.
class canvas {
public:
    canvas();

    std::size_t rows_left() const { return rows_ - used_; }

    // A line of foreign text; dropped when no row is left.
    void line(const std::string& text, const char* colour);

    void show();

private:
    std::size_t rows_ = 24;
    std::size_t columns_ = 80;
    bool colours_;
    std::size_t used_ = 0;  // rows
    std::string out_ = "\033[H";
};

}  // namespace client
