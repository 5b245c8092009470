// Configuration files as the daemon's readers take them, and single lines made into files for these readers.
#pragma once

#include "findings.h"
#include "util/unique_fd.h"

#include <functional>
#include <string>
#include <string_view>

namespace check {

struct line_piece {
    int number;        // line of the file, from 1
    std::string text;  // with its newline; ends before a NUL, where the daemon's readers stop too
};

enum class missing_file { allowed, is_finding };

// Reads a file in pieces of at most size - 1 characters, as fgets cuts it for the daemon, and calls validate with each. A
// line that is longer and one that holds a NUL are findings. Returns false when the file cannot be read. This is a
// finding, except for a missing file with missing_file::allowed.
bool validate_lines(const std::string& path, std::size_t size, missing_file missing, findings& to,
                    const std::function<void(const line_piece&)>& validate);

// A file in memory with changing content. The daemon's readers take files, so each line that is checked becomes a file
// of its own: what a reader then says is about that line.
class scratch_file {
public:
    scratch_file();  // throws std::system_error

    void put(std::string_view text);
    static const char* directory() { return "/proc/self/fd"; }
    const std::string& name() const { return name_; }  // in directory()
    std::string path() const { return directory() + ("/" + name_); }

private:
    unique_fd fd_;
    std::string name_;
};

// The file for the line being checked. One thread, no two users at once.
scratch_file& scratch();

// True for an empty text and for one of blanks and line ends only.
bool is_blank(std::string_view text);

}  // namespace check
