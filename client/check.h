// `check`: a plugin of monitoring engines, by the Monitoring Plugins guidelines.
#pragma once

namespace client {

struct settings;

// One line, and the exit code 0 (OK), 1 (WARNING), 2 (CRITICAL) or 3 (UNKNOWN).
int run_check(const settings& chosen);

}  // namespace client
