#include "mail/replace_file.h"
#include "monitor/collect.h"
#include "monitor/exposition.h"
#include "monitor/monitor.h"
#include "options/options.h"
#include "term/output.h"
#include "term/text.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

// A file is written in the Prometheus format, because the textfile collector needs the type of each metric and the
// common format has none for counters.
exposition format_of(const settings& chosen) {
    if (chosen.format == "openmetrics") {
        return exposition::openmetrics;
    }
    return chosen.format == "prometheus" || !chosen.output.empty() ? exposition::prometheus
                                                                   : exposition::common;
}

}  // namespace

int run_metrics(const settings& chosen) {
    if (!chosen.listen.empty()) {
        return serve_metrics(chosen);
    }
    const snapshot known = collect(chosen, true).front();
    if (!known.up) {
        complain(known.problem);
    }
    const exposition format = format_of(chosen);
    const std::string& path = chosen.output;
    std::string problem;
    // The collector reads the file for ever, so it must say when its contents stop being true.
    if (!path.empty() && !replace_file(path, expose(known, format, true), 0644, true, problem)) {
        complain(problem);
        return exit_usage;
    }
    if (known.is_own_fault()) {
        return exit_usage;
    }
    // A scheduler that is down is no failure of the command: collectors need the metric sched_up 0.
    if (path.empty() && !write_all(STDOUT_FILENO, expose(known, format))) {
        complain("cannot write: " + std::generic_category().message(errno));
        return exit_usage;
    }
    return 0;
}

}  // namespace client
