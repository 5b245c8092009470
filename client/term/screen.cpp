#include "term/screen.h"

#include "term/text.h"

#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

bool can_draw() {
    const char* term = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && term != nullptr && term[0] != '\0' && std::strcmp(term, "dumb") != 0;
}

void screen::enter() {
    if (std::exchange(entered_, true)) {
        return;
    }
    // The keyboard first: the system stops a background job here, before it draws.
    if (tcgetattr(STDIN_FILENO, &usual_) == 0) {
        termios keys = usual_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VQUIT] = _POSIX_VDISABLE;  // it would end the program without restoring the terminal
        keyboard_ = tcsetattr(STDIN_FILENO, TCSADRAIN, &keys) == 0 ? STDIN_FILENO : -1;
    }
    write_all(STDOUT_FILENO, "\033[?1049h\033[?25l\033[2J");  // alternate screen, no cursor, cleared
}

void screen::leave() {
    if (!std::exchange(entered_, false)) {
        return;
    }
    write_all(STDOUT_FILENO, "\033[?25h\033[?1049l");
    if (keyboard_ >= 0) {
        tcsetattr(keyboard_, TCSAFLUSH, &usual_);  // drops unread keys, which were not meant for the shell
    }
}

// One read: poll has reported that there are bytes, so it does not block.
bool screen::take_keys(std::string& keys) const {
    char piece[64];
    const ssize_t n = read(keyboard_, piece, sizeof piece);
    keys.append(piece, n > 0 ? static_cast<std::size_t>(n) : 0);
    return n > 0;
}

canvas::canvas() : colours_(std::getenv("NO_COLOR") == nullptr) {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        rows_ = size.ws_row;
        columns_ = size.ws_col;
    }
}

void canvas::line(const std::string& text, const char* colour) {
    if (used_ == rows_) {
        return;
    }
    if (used_++ != 0) {
        out_ += "\n";
    }
    if (colours_) {
        out_ += colour;
    }
    out_ += fit(text, columns_) + "\033[0m\033[K";
}

bool canvas::show() { return write_all(STDOUT_FILENO, out_ + "\033[J"); }
