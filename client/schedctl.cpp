// schedctl: the operator's client of the scheduler. schedctl-exporter has this main program too, with its own
// serve_metrics().
#include "monitor/monitor.h"
#include "options/options.h"
#include "protocol/answer.h"
#include "run/runner.h"
#include "run/session.h"
#include "term/output.h"
#include "watch/watch.h"

#include <clocale>
#include <cstdio>
#include <exception>

namespace {

// Selects the mode; parse_options has refused combinations that make no sense. Each mode starts its agent.
int run(const settings& chosen, char** arguments) {
    switch (chosen.what) {
        case task::metrics:
            return chosen.is_exporter() ? serve_metrics(chosen, arguments) : run_metrics(chosen);
        case task::check:
            return run_check(chosen);
        case task::watch:
        case task::follow:
            return run_watch(chosen);
        case task::list:
            for (const host_name& host : chosen.hosts) {
                std::puts(host.label.c_str());
            }
            return 0;
        default:
            return chosen.words.empty() ? run_session(chosen) : run_command(chosen);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    if (!open_standard_streams()) {
        return exit_usage;
    }
    // The operator's locale tells which bytes are printable; numbers and dates stay independent of it.
    std::setlocale(LC_CTYPE, "");
    settings chosen;
    if (const std::optional<int> end = parse_options(argc, argv, chosen)) {
        return *end;
    }
    // A command whose output was lost must not look successful.
    const int code = run(chosen, argv);
    return flush_output() ? code : exit_usage;
} catch (const std::exception& problem) {
    complain(problem.what());
    return exit_usage;
}
