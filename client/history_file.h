// The lines typed in earlier sessions, in a file that several sessions use at once.
#pragma once

#include <histedit.h>
#include <string>

namespace client {

constexpr int history_size = 1000;  // lines that a session offers, and that a trimmed file keeps
constexpr long longest_history_file = 256L * 1024;  // bytes; a longer file is trimmed

class history_file {
public:
    // path: empty: nothing is read or kept. A file that is missing, locked for long or no regular file counts as
    // empty and is not written: a session works without its history.
    explicit history_file(std::string path) : path_(std::move(path)) {}

    // Adds the file's newest lines to the history.
    void load(History* into) const;

    // Appends the lines of the history, oldest first, behind what other sessions have written meanwhile.
    void append(History* lines) const;

private:
    std::string path_;
};

}  // namespace client
