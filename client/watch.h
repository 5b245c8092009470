// The live view of the scheduler's status.
#pragma once

namespace client {

struct settings;

// Runs until Ctrl-C (0), or until the scheduler cannot be asked at all; its loss in between is waited out.
int run_watch(const settings& chosen);

}  // namespace client
