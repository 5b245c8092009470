// The parent process that starts the scheduler again when it dies.
#pragma once

#include <sys/types.h>

// Starts the scheduler and watches over it; ends the process with 0 after a normal end, else with 1.
[[noreturn]] void alive_check();

// Forks the scheduler, detached from the terminal. Returns its process id; in the child it never returns. A failed
// fork ends the process.
pid_t create_sched();
