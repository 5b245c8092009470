// `check`: a plugin for monitoring engines, as the Monitoring Plugins guidelines define it.
#pragma once

namespace client {

struct settings;

// Prints one line. Returns the exit code 0 (OK), 1 (WARNING), 2 (CRITICAL) or 3 (UNKNOWN).
int run_check(const settings& chosen);

}  // namespace client
