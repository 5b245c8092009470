// Configuration files as the daemon's readers take them, and single lines made into files for these readers.
#pragma once

#include "report.h"
#include "util/unique_fd.h"

#include <functional>
#include <string>
#include <string_view>

namespace check {

struct line_piece {
    int number;        // line of the file, from 1
    std::string text;  // with its newline; ends before a NUL, where the daemon's readers stop too
};

enum class absence { allowed, reported };

// Reads a file in pieces of at most size - 1 characters, as fgets cuts it for the daemon, and calls judge with each. A
// line that is longer and one that holds a NUL are findings. False when the file cannot be read, which is reported
// unless it is absent and may be.
bool judge_lines(const std::string& path, std::size_t size, absence missing, report& to,
                 const std::function<void(const line_piece&)>& judge);

// A file in memory with changing content. The daemon's readers take files, so each line that is judged becomes a file
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

// The file for the line being judged. One thread, no two users at once.
scratch_file& scratch();

// True when text begins with blanks, or nothing, and then ends.
bool is_blank(std::string_view text);

}  // namespace check
