// The settings of a run, from the options, else the environment, else the services database, else built-in values.
#pragma once

#include "net/host_link.h"

#include <optional>

// What the client does. `words`: a command of the scheduler, or a session. `list`: --list. The others are its own
// commands.
enum class task { words, list, watch, follow, metrics, check };

// The states of the Monitoring Plugins guidelines; the values are the exit codes.
enum plugin_state : int { plugin_ok, plugin_warning, plugin_critical, plugin_unknown };

struct settings {
    task what = task::words;
    std::vector<std::string> words;       // the command; empty: a session
    std::string host_list = "127.0.0.1";  // the value of -H, not yet parsed
    std::string hosts_file;               // "-": standard input
    std::vector<host_name> hosts;         // at least one; none with --listen and --hosts
    bool several = false;                 // several hosts, or a file of hosts: output names the host
    bool list = false;                    // --list was given, with any command
    std::uint16_t port = 0;               // for hosts without one
    connect_options connect;
    unsigned parallel = 64;    // number of hosts asked at once
    bool as_it_comes = false;  // true: output of several hosts is written as it arrives
    bool json = false;

    // "LABEL: " before a line about this host, with several; else nothing.
    std::string prefix_of(std::size_t host) const { return several ? hosts[host].label + ": " : ""; }

    // `watch` and `follow`
    unsigned interval = 2;      // seconds between two status requests
    bool level_prefix = false;  // lines of `follow` begin with their syslog priority

    // `metrics`
    std::string output;  // file to write; empty: standard output
    std::string listen;  // "ADDRESS:PORT" to serve at; empty: do not
    bool is_exporter() const { return what == task::metrics && !listen.empty(); }

    // `check`
    std::vector<std::string> warning;               // conditions, or "all" or "none"
    std::vector<std::string> critical = {"error"};  // a condition in both lists is critical
    int timeout_level = plugin_unknown;             // a plugin_state
};

// The commands whose answers have a JSON form, for messages.
inline constexpr const char* json_commands = "`status`, `modcntl`, `debug timer`, `show ip` or `show allowed_ip`";

// Reads the command line. Returns an exit code when the program must end at once (help, wrong usage, completion), else
// nothing.
std::optional<int> parse_options(int argc, char** argv, settings& chosen);
