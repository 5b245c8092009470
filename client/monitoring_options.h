// The commands for monitoring systems, `metrics` and `check`, and their options.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace client {

// States of the Monitoring Plugins guidelines, as exit codes.
enum plugin_state : int { plugin_ok, plugin_warning, plugin_critical, plugin_unknown };

struct monitoring_settings {
    bool metrics = false;
    std::string output;  // file to write; empty: standard output
    std::string listen;  // "ADDRESS:PORT" to serve at; empty: do not
    std::string format;  // "prometheus" or "openmetrics"; empty: what both take

    bool check = false;
    std::vector<std::string> warning = {"all"};     // conditions, or "all" or "none"
    std::vector<std::string> critical = {"error"};  // go before those above
    int timeout_level = plugin_unknown;             // a plugin_state
};

// Adds both; the options of app may follow their words.
void add_monitoring_commands(CLI::App& app, monitoring_settings& chosen);

}  // namespace client
