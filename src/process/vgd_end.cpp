#include "process/vgd_end.h"

#include "command/dispatch.h"
#include "trace/trace.h"

#include <cstdlib>

void exit_process(int code) {
    // exit() must not run in two threads at once. The lock is never released: a second caller waits until the process
    // has ended.
    static constinit posix_mutex ending;
    ending.lock();
    std::exit(code);
}

void run_vgd_end() {
    trprintf("Info:calling VGDend\n");
    do_last_command("allmodcall\tstop");
    exit_process(0);
}
