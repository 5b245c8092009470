// The terminal while a live view is shown on it, and the lines of the view.
#pragma once

#include <cstddef>
#include <string>
#include <termios.h>

// Returns true when standard output is a terminal that can show a live view.
bool can_draw();

// While it exists, the terminal shows its alternate screen without a cursor, and keys are read one by one without echo.
class screen {
public:
    screen() = default;
    ~screen() { leave(); }
    screen(const screen&) = delete;
    screen& operator=(const screen&) = delete;

    // Each does nothing when the screen is in that state already.
    void enter();
    void leave();
    bool is_entered() const { return entered_; }

    // The descriptor of the keyboard; -1 when standard input is not a terminal.
    int keyboard() const { return keyboard_; }

    // Appends the keys that can be read. Returns false when no more can come.
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

// One drawing of a view, from the top line down, cut to the size of the terminal.
class canvas {
public:
    canvas();

    std::size_t rows_left() const { return rows_ - used_; }
    std::size_t columns() const { return columns_; }

    // Adds a line of any text, made printable; dropped when no row is left.
    void line(const std::string& text, const char* colour);

    // Returns false when the terminal could not be written.
    bool show();

private:
    std::size_t rows_ = 24;
    std::size_t columns_ = 80;
    bool colours_;
    std::size_t used_ = 0;  // rows
    std::string out_ = "\033[H";
};
