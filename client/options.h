// The settings of a run, from the options, else the environment, else the services database, else built-in values.
#pragma once

#include "connection.h"
#include "host_list.h"
#include "monitoring_options.h"

#include <optional>
#include <string>
#include <vector>

namespace client {

struct settings {
    endpoint where;
    std::string hosts_file;        // "-": standard input
    std::vector<host_name> hosts;  // set for several hosts or a file of hosts; `where` then has no host
    unsigned parallel = 64;        // number of hosts asked at once
    bool as_it_comes = false;      // true: their output is not sorted by host
    std::string user;              // sent with "hello"; empty: not sent
    std::string password_file;     // empty: ask on the terminal
    bool json = false;
    bool watch = false;
    unsigned interval = 2;      // seconds between two status requests of `watch`
    bool level_prefix = false;  // lines of `watch --json` begin with their syslog priority
    monitoring_settings monitoring;
    std::vector<std::string> words;  // the command; empty: a session
};

// Reads the command line. Returns an exit code when the program must end at once (help, wrong usage), else nothing.
std::optional<int> parse_options(int argc, char** argv, settings& chosen);

}  // namespace client
