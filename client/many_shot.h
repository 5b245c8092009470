// Runs one command on many hosts and writes their answers to standard output.
#pragma once

namespace client {

struct settings;

// Returns 0 when it succeeded on all hosts, else the largest exit code of the hosts.
int run_many_shot(const settings& chosen);

}  // namespace client
