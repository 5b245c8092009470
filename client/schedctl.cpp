// schedctl: the operator's client of the scheduler.
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
int run(const client::settings& chosen) {
    switch (chosen.what) {
        case client::task::metrics:
            return client::run_metrics(chosen);
        case client::task::check:
            return client::run_check(chosen);
        case client::task::watch:
        case client::task::follow:
            return client::run_watch(chosen);
        case client::task::list:
            for (const client::host_name& host : chosen.hosts) {
                std::puts(host.label.c_str());
            }
            return 0;
        default:
            return chosen.words.empty() ? client::run_session(chosen) : client::run_command(chosen);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    if (!client::open_standard_streams()) {
        return client::exit_usage;
    }
    // The operator's locale tells which bytes are printable; numbers and dates stay independent of it.
    std::setlocale(LC_CTYPE, "");
    client::settings chosen;
    if (const std::optional<int> end = client::parse_options(argc, argv, chosen)) {
        return *end;
    }
    // A command whose output was lost must not look successful.
    const int code = run(chosen);
    return client::flush_output() ? code : client::exit_usage;
} catch (const std::exception& problem) {
    client::complain(problem.what());
    return client::exit_usage;
}
