// What the operator asked for: options, then environment, then the services database, then built-in values.
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
    std::vector<host_name> hosts;  // when several were asked for, or a file of them; `where` then names none
    unsigned parallel = 64;        // how many of them are asked at once
    bool as_it_comes = false;      // their output is not in their order
    std::string user;              // sent with "hello"; empty: not sent
    std::string password_file;     // empty: ask on the terminal
    bool json = false;
    bool watch = false;
    unsigned interval = 2;      // seconds between two looks of `watch`
    bool level_prefix = false;  // lines of `watch --json` begin with their syslog priority
    monitoring_settings monitoring;
    std::vector<std::string> words;  // the command; empty: a session
};

// Reads the command line. An exit code when the program shall end at once (help, a mistake), else nothing.
std::optional<int> parse_options(int argc, char** argv, settings& chosen);

}  // namespace client
