// Runs one command from the shell: the answer goes to standard output, the result becomes the exit code.
#pragma once

namespace client {

struct settings;

int run_one_shot(const settings& chosen);

}  // namespace client
