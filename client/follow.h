// `watch --json`: follows schedulers for other programs, one line of JSON for each thing that happens, and keeps the
// state files from which metrics and checks are answered.
#pragma once

namespace client {

struct settings;

// Runs until a signal or the end of its reader (0). It waits for schedulers that are not there yet or do not answer.
// One that refuses us ends it with an exit code; among several hosts it is reported and tried again after a minute.
// Messages that can no longer be written go into the spool.
int run_follow(const settings& chosen);

}  // namespace client
