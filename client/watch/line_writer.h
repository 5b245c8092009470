// Lines on standard output, each written at once.
#pragma once

#include <csignal>
#include <string>

namespace client {

class line_writer {
public:
    // From now on a closed pipe is an error of write.
    line_writer() { std::signal(SIGPIPE, SIG_IGN); }

    // Writes a line, which must end with LF. Its reader may be slow, so a signal ends the waiting. Returns false when
    // it was not written completely: then nothing more can be written. A reader that has gone and a signal are no
    // fault; another reason is reported.
    bool write(const std::string& line);

    // Writes one line of any text, made printable on a terminal; with the same result.
    bool print(const std::string& text);

    bool is_open() const { return is_open_; }
    int exit_code() const { return exit_code_; }  // for the end of the program

private:
    bool is_open_ = true;
    int exit_code_ = 0;
};

}  // namespace client
