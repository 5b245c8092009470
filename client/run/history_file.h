// The lines typed in earlier sessions, in a file that several sessions use at once.
#pragma once

#include <histedit.h>
#include <string>

namespace client {

constexpr int history_size = 1000;  // lines that a session offers, and that a trimmed file keeps
constexpr long longest_history_file = 256L * 1024;  // bytes; a longer file is trimmed

// A file that is missing counts as empty; append_history creates it. A file that stays locked (by a session that was
// stopped while it ends), or is no regular file, also counts as empty and is not written: the session then works
// without it. The same holds for an empty path.

// Adds the file's newest lines to the history.
void load_history(const std::string& path, History* into);

// Appends the lines of the history, oldest first, after the lines that other sessions have written meanwhile.
void append_history(const std::string& path, History* lines);

}  // namespace client
