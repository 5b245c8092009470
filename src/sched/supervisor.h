// The parent process that starts the scheduler again when it dies.
#pragma once

#include "util/unique_fd.h"

#include <sys/types.h>

// Starts the scheduler, and starts it again when it dies. Keeps the event pipe open meanwhile, so that the lines in it
// wait for the next scheduler. Ends the process: with exit code 0 after the scheduler's normal end, else with 1.
[[noreturn]] void alive_check();

// Forks the scheduler, detached from the terminal and without event_pipe, the supervisor's own descriptor. Returns its
// process id; in the child it never returns. When fork fails, the process ends with exit code 1.
pid_t create_sched(unique_fd& event_pipe);
