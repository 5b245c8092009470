// How the scheduler process ends.
#pragma once

// Runs "allmodcall stop" as the last module command and ends the process with exit code 0. Event and timer threads;
// when both call it, the second waits for the end of the process.
[[noreturn]] void run_vgd_end();

// Ends the process with that exit code, without waiting for other threads. Any thread; the first caller's code counts.
[[noreturn]] void exit_process(int code);
