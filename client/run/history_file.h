// The lines typed in earlier sessions, in a file that several sessions use at once.
#pragma once

#include <histedit.h>
#include <string>

namespace client {

constexpr int history_size = 1000;  // lines that a session offers, and that a trimmed file keeps
constexpr long longest_history_file = 256L * 1024;  // bytes; a longer file is trimmed

class history_file {
public:
    // With an empty path nothing is read or written. A file that is missing, stays locked or is not a regular file
    // counts as empty and is not written: the session then works without a history.
    explicit history_file(std::string path) : path_(std::move(path)) {}

    // Adds the file's newest lines to the history.
    void load(History* into) const;

    // Appends the lines of the history, oldest first, after the lines that other sessions have written meanwhile.
    void append(History* lines) const;

private:
    std::string path_;
};

}  // namespace client
