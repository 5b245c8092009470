// The parent process that starts the scheduler again when it dies.
#pragma once

#include <sys/types.h>

// Starts the scheduler, and starts it again when it dies. Ends the process: with exit code 0 after the scheduler's
// normal end, else with 1.
[[noreturn]] void alive_check();

// Forks the scheduler, detached from the terminal. Returns its process id; in the child it never returns. When fork
// fails, the process ends with exit code 1.
pid_t create_sched();
