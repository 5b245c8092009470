#include "metrics.h"

#include "answer.h"
#include "exposition.h"
#include "metrics_server.h"
#include "options.h"
#include "replace_file.h"
#include "text.h"
#include "visit.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <unistd.h>

namespace client {

namespace {

int fail(const std::string& problem) {
    std::fprintf(stderr, "schedctl: %s\n", problem.c_str());
    return exit_usage;
}

// A file is written in the Prometheus format, because the textfile collector needs the type of each metric and the
// common format has none for counters.
exposition format_of(const monitoring_settings& chosen) {
    if (chosen.format == "openmetrics") {
        return exposition::openmetrics;
    }
    return chosen.format == "prometheus" || !chosen.output.empty() ? exposition::prometheus
                                                                   : exposition::common;
}

}  // namespace

int run_metrics(const settings& chosen) {
    if (!chosen.monitoring.listen.empty()) {
        return serve_metrics(chosen);
    }
    const snapshot known = look_at(chosen, true);
    // Not a failure of the command: collectors need the metric sched_up 0.
    if (!known.up) {
        std::fprintf(stderr, "schedctl: %s\n", known.problem.c_str());
    }
    report_unkept(known);
    const std::string& path = chosen.monitoring.output;
    const std::string text = expose(known, format_of(chosen.monitoring));
    std::string problem;
    if (!path.empty()) {
        return replace_file(path, text, 0644, true, problem) ? 0 : fail(problem);
    }
    if (!write_all(STDOUT_FILENO, text)) {
        return fail(std::string("cannot write: ") + std::generic_category().message(errno));
    }
    return 0;
}

}  // namespace client
