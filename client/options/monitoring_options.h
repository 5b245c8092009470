// The commands for monitoring systems, `metrics` and `check`, and their options.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace client {

// The states of the Monitoring Plugins guidelines; the values are the exit codes.
enum plugin_state : int { plugin_ok, plugin_warning, plugin_critical, plugin_unknown };

// All conditions that are faults.
std::vector<std::string> usual_warnings();

struct monitoring_settings {
    bool metrics = false;
    std::string output;  // file to write; empty: standard output
    std::string listen;  // "ADDRESS:PORT" to serve at; empty: do not
    std::string format;  // "prometheus" or "openmetrics"; empty: a text that is valid in both

    bool check = false;
    std::vector<std::string> warning = usual_warnings();  // conditions, or "all" or "none"
    std::vector<std::string> critical = {"error"};        // a condition in both lists is critical
    int timeout_level = plugin_unknown;                   // a plugin_state
};

// Adds both commands; the options of app may follow their words.
void add_monitoring_commands(CLI::App& app, monitoring_settings& chosen);

}  // namespace client
