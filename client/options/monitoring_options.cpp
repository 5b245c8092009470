#include "options/monitoring_options.h"

#include "protocol/condition_names.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <map>

namespace client {

namespace {

// The words that -w and -c accept.
std::vector<std::string> condition_words() {
    std::vector<std::string> words = {"all", "none"};
    words.insert(words.end(), std::begin(condition_names), std::end(condition_names));
    return words;
}

void add_metrics(CLI::App& app, monitoring_settings& chosen) {
    CLI::App* metrics = app.add_subcommand("metrics", "Print the metrics of the scheduler for collectors");
    // General options, such as the host, may also follow the subcommand.
    metrics->fallthrough();
    metrics->callback([&chosen] { chosen.metrics = true; });
    CLI::Option* output =
        metrics->add_option("-o,--output", chosen.output, "Replace this file, for the textfile collector")
            ->type_name("FILE");
    // --output writes a file once; --listen serves until it is stopped.
    metrics->add_option("--listen", chosen.listen, "Serve /metrics?target=HOST:PORT at ADDRESS:PORT")
        ->excludes(output);
    metrics->add_option("--format", chosen.format, "Format of the text; default: one that is valid in both")
        ->check(CLI::IsMember({"prometheus", "openmetrics"}));
}

void add_check(CLI::App& app, monitoring_settings& chosen) {
    CLI::App* check = app.add_subcommand("check", "Check the scheduler as a monitoring plugin");
    check->fallthrough();
    check->callback([&chosen] { chosen.check = true; });
    // A misspelt condition would never match, so the check would miss the fault: refuse it.
    const CLI::IsMember known(condition_words());
    check
        ->add_option("-w,--warning", chosen.warning,
                     "Conditions that give a warning, separated by commas; or all, none")
        ->delimiter(',')
        ->check(known)
        ->capture_default_str();
    check->add_option("-c,--critical", chosen.critical, "Conditions that are critical; they override -w")
        ->delimiter(',')
        ->check(known)
        ->capture_default_str();
    // The names of the exit codes that all monitoring plugins share.
    const std::map<std::string, int> levels = {{"ok", plugin_ok},
                                               {"warning", plugin_warning},
                                               {"critical", plugin_critical},
                                               {"unknown", plugin_unknown}};
    check
        ->add_option("--timeout-state", chosen.timeout_level,
                     "State when the scheduler does not answer in time")
        ->transform(CLI::CheckedTransformer(levels, CLI::ignore_case))
        ->default_str("unknown");
}

}  // namespace

std::vector<std::string> usual_warnings() {
    std::vector<std::string> names;
    std::copy_if(std::begin(condition_names), std::end(condition_names), std::back_inserter(names), is_fault);
    return names;
}

void add_monitoring_commands(CLI::App& app, monitoring_settings& chosen) {
    add_metrics(app, chosen);
    add_check(app, chosen);
}

}  // namespace client
