// The body of the scheduler process.
#pragma once

// PID file, service threads, start-up module commands, listener, accept loop. Main thread.
[[noreturn]] void sched_main();

// Writes the own process id into a PID file; a failure is traced. Scheduler and supervisor, main thread.
void record_pid(const char* path);

// Starts the event, system-log and timer threads, detached. A thread that cannot be created is traced and left out.
// Without the event thread start-up would wait for ever, so that failure ends the process with exit code 1.
void create_event_timer_thread();

// Runs the module commands that set the first status marks.
void run_startup_vgd_command();
