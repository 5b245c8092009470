// Start-up: fills the record from environment, files and options. Main thread only, before any other thread exists.
#pragma once

constexpr char version_text[] = "8.0.0-130207154512";

// Prints the version on standard output and ends the process with exit code 0.
[[noreturn]] void print_version();

// Checks the environment, removes REMOTEHOST from it, creates the record with its defaults and paths, starts the trace,
// blocks signals. Ends the process with exit code 1 when a variable or memory is missing.
void init_sched();

// Applies the command line to the record. Returns the niceness increment. Ends the process when asked for the version
// and on a usage error.
int parse_options(int argc, char* argv[]);

// Sets up HMI table, port, password file and forwarding switch. Ends the process with exit code 1 on failure.
void init_sched2();

// Lowers the priority of the process. A failure is traced.
void apply_niceness(int increment);

// Reads the module list. Ends the process with exit code 1 when it cannot be read.
void load_modules();
