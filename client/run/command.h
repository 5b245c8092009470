// One command on one host or many.
#pragma once

namespace client {

struct settings;

// Returns the exit code of the command: with several hosts the largest of theirs.
int run_command(const settings& chosen);

}  // namespace client
