// The settings of a run, from the options, else the environment, else the services database, else built-in values.
#pragma once

#include "net/connect_options.h"
#include "net/host_list.h"
#include "options/monitoring_options.h"

#include <optional>
#include <string>
#include <vector>

namespace client {

struct settings {
    std::vector<host_name> hosts;  // at least one
    bool several = false;          // several hosts, or a file of hosts: output names the host
    std::string hosts_file;        // "-": standard input
    std::uint16_t port = 0;        // for hosts without one
    connect_options connect;
    unsigned parallel = 64;    // number of hosts asked at once
    bool as_it_comes = false;  // true: output of several hosts is written as it arrives
    bool json = false;
    bool watch = false;         // the live view
    bool follow = false;        // `follow`, or `watch --json`, its old name
    unsigned interval = 2;      // seconds between two status requests
    bool level_prefix = false;  // lines of `follow` begin with their syslog priority
    monitoring_settings monitoring;
    std::vector<std::string> words;  // the command; empty: a session
};

// The commands whose answers have a JSON form, for messages.
inline constexpr const char* json_commands =
    "`status`, `modcntl`, `debug timer`, `show ip` or `show allowed_ip`";

// Reads the command line. Returns an exit code when the program must end at once (help, wrong usage, a list of hosts,
// completion), else nothing.
std::optional<int> parse_options(int argc, char** argv, settings& chosen);

}  // namespace client
