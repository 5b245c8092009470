// The ends of the scheduler process.
#pragma once

// Runs "allmodcall stop" as the last module command and ends the process with exit code 0. Event and timer thread;
// when both call it, one of them does it.
[[noreturn]] void run_vgd_end();

// Ends the process with that exit code, wherever the other threads are. Any thread; the first caller's code counts.
[[noreturn]] void exit_process(int code);
