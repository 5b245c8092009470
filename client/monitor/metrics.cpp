#include "mail/replace_file.h"
#include "monitor/collect.h"
#include "monitor/exposition.h"
#include "monitor/monitor.h"
#include "options/options.h"
#include "term/output.h"
#include "term/text.h"

#include <unistd.h>

namespace client {

int run_metrics(const settings& chosen) {
    if (!chosen.listen.empty()) {
        return serve_metrics(chosen);
    }
    const snapshot known = collect(chosen).front();
    if (!known.up) {
        complain(known.problem);
    }
    // A file is written in the Prometheus format, because the textfile collector needs the type of each metric and the
    // common format has none for counters.
    const bool is_prometheus = chosen.format == "prometheus" || !chosen.output.empty();
    const exposition format = chosen.format == "openmetrics" ? exposition::openmetrics
                              : is_prometheus                ? exposition::prometheus
                                                             : exposition::common;
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
    return !path.empty() || write_all(STDOUT_FILENO, expose(known, format)) ? 0 : fail_output();
}

}  // namespace client
