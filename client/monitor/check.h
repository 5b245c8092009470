// `check`: a plugin for monitoring engines, as the Monitoring Plugins guidelines define it.
#pragma once

namespace client {

struct settings;

// Prints one line for each host. Returns the exit code of the worst: 0 (OK), 3 (UNKNOWN), 1 (WARNING), 2 (CRITICAL).
int run_check(const settings& chosen);

}  // namespace client
