// The ends of the scheduler process.
#pragma once

// Runs "allmodcall stop" as the last module command and ends the process with exit code 0. Called by the event and timer threads;
// when both call it, one of them does the work.
[[noreturn]] void run_vgd_end();

// Ends the process with that exit code, whatever the other threads do. Any thread; the first caller's code counts.
[[noreturn]] void exit_process(int code);
