// The live view of the scheduler's status.
#pragma once

namespace client {

struct settings;

// Runs until Ctrl-C (returns 0), or until the first status request fails. When the connection is lost later, it waits
// and connects again.
int run_watch(const settings& chosen);

}  // namespace client
