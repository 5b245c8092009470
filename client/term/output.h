// Standard input, output and error of both programs.
#pragma once

#include <csignal>
#include <string>

// Call first in main. If one of the descriptors 0, 1 and 2 is closed, the next socket or file would get its number, and
// output for the operator would go there. So closed ones are opened on /dev/null for reading: input is empty, and
// writing still fails. Returns false when that fails.
bool open_standard_streams();

// Flushes the C streams. Returns false, after a message on standard error, when standard output could not be written.
bool flush_output();

// Reports that standard output could not be written, with errno. Returns the exit code for it.
int fail_output();

// Writes a line about a problem to standard error, after the name of the program.
void complain(const std::string& problem);

// Lines on standard output, each written at once.
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
