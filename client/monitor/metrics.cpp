#include "mail/replace_file.h"
#include "monitor/collect.h"
#include "monitor/exposition.h"
#include "monitor/monitor.h"
#include "options/options.h"
#include "term/output.h"
#include "term/text.h"

#include <unistd.h>

int run_metrics(const settings& chosen) {
    const snapshot known = collect(chosen).front();
    if (!known.up) {
        complain(known.problem);
    }
    // The collector reads the file for ever, so it must say when its contents stop being true.
    if (!chosen.output.empty()) {
        replace_file(chosen.output, expose(known, destination::file), 0644);
    }
    if (known.is_own_fault()) {
        return exit_usage;
    }
    // A scheduler that is down is no failure of the command: collectors need the metric sched_up 0.
    return !chosen.output.empty() || write_all(STDOUT_FILENO, expose(known, destination::output)) ? 0 : fail_output();
}
