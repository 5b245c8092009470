// The body of the scheduler process.
#pragma once

// Writes the PID file, starts the service threads, runs the start-up module commands, opens the listener and accepts
// connections for ever. Main thread.
[[noreturn]] void sched_main();

// Writes the id of the calling process into a PID file. A failure is traced. Scheduler and supervisor, main thread.
void record_pid(const char* path);

// Starts the event, system-log and timer threads, detached. When a thread cannot be created, that is traced and the
// scheduler goes on without it. Only the event thread is required, since start-up waits for it: without it the process
// ends with exit code 1.
void create_event_timer_thread();

// Runs the module commands that set the first status marks.
void run_startup_vgd_command();
