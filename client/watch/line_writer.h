// Lines on standard output, each written at once.
#pragma once

#include "term/signals.h"

#include <string>
#include <string_view>

namespace client {

class line_writer {
public:
    // From now on a closed pipe is an error of write.
    explicit line_writer(signal_watch& signals);

    // Writes a line, which must end with LF. Its reader may be slow, so a signal ends the waiting. Returns false when
    // it was not written completely: then nothing more can be written. A reader that has gone and a signal are no
    // fault; another reason is reported.
    bool write(std::string_view line);

    // Writes one line of any text, made printable on a terminal; with the same result.
    bool print(const std::string& text);

    bool is_open() const { return is_open_; }
    int exit_code() const { return exit_code_; }  // for the end of the program

private:
    signal_watch& signals_;
    bool is_open_ = true;
    int exit_code_ = 0;
};

}  // namespace client
