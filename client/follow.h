// `watch --json`: follows a scheduler for other programs, one line of JSON for each thing that happens, and keeps
// the state file from which metrics and checks are answered.
#pragma once

namespace client {

struct settings;

// Runs until a signal or the end of its reader (0), or until a login is refused. It waits for a scheduler that is
// not there yet or does not answer. Messages that can no longer be written go into the spool.
int run_follow(const settings& chosen);

}  // namespace client
