// One command for many hosts, their answers to standard output.
#pragma once

namespace client {

struct settings;

// Returns 0 when it succeeded everywhere, else the largest of the hosts' exit codes.
int run_many_shot(const settings& chosen);

}  // namespace client
