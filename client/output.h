// Standard input, output and error of both programs.
#pragma once

#include <string_view>

namespace client {

// Call first in main. A closed descriptor of 0, 1 and 2 would be given to the next socket or file, and output meant
// for the operator would go there. Closed ones are opened on /dev/null for reading: input is empty, and writing still
// fails. false when that is impossible.
bool open_standard_streams();

// Writes out what the C streams hold back. false when standard output did not take all of it; standard error
// has been told.
bool flush_output();

// Writes the text to standard output at once. When that fails, the program ends with exit_usage and a message.
void print(std::string_view text);

}  // namespace client
