// The live view of many schedulers' status.
#pragma once

namespace client {

struct settings;

// Runs until the operator ends it and returns 0. A host that cannot be reached is tried again at each interval.
int run_fleet_watch(const settings& chosen);

}  // namespace client
