// Standard input, output and error of both programs.
#pragma once

#include <string>

namespace client {

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

}  // namespace client
