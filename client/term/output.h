// Standard input, output and error of both programs.
#pragma once

#include <string_view>

namespace client {

// Call first in main. If one of the descriptors 0, 1 and 2 is closed, the next socket or file would get its number, and
// output for the operator would go there. So closed ones are opened on /dev/null for reading: input is empty, and
// writing still fails. Returns false when that fails.
bool open_standard_streams();

// Flushes the C streams. Returns false, after a message on standard error, when standard output could not be written.
bool flush_output();

// Writes the text to standard output at once. When that fails, the program ends with exit_usage and a message.
void print(std::string_view text);

}  // namespace client
