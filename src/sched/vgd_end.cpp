#include "sched/vgd_end.h"

#include "command/dispatch.h"
#include "trace/trace.h"

#include <atomic>
#include <cstdlib>
#include <unistd.h>

void exit_process(int code) {
    // exit() must not run in two threads at once. Never unlocked: a second caller waits for the process to be gone.
    static constinit posix_mutex ending;
    ending.lock();
    std::exit(code);
}

void run_vgd_end() {
    static std::atomic<int> callers = 0;
    ++callers;
    trprintf("Info:calling VGDend\n");
    do_command_with_buffer("allmodcall\tstop", nullptr, 0);
    // The last one ends the process, so that no caller's modules are left in the middle of their stop.
    if (--callers > 0) {
        for (;;) {
            pause();
        }
    }
    exit_process(0);
}
