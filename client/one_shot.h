// One command from the shell, its answer to standard output, its result as exit code.
#pragma once

namespace client {

struct settings;

int run_one_shot(const settings& chosen);

}  // namespace client
