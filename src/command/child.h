// The child's side of a module run: what happens between the fork and the exec.
#pragma once

#include "command/com_lock.h"

#include <sys/types.h>

// Prepares the environment module programs get. Returns 0, or -1 when memory is short. Start-up only.
int init_child_environment() REQUIRES(com_lock);

// Starts the program at path with argv in a process group of its own: no standard input, standard output on output,
// standard error on null, no other descriptor; addition ("NAME=value" or empty) joins the scheduler's environment.
// A program that cannot be executed leaves its message on output and ends with exit code 1.
// Returns the process id, or -1 with errno.
pid_t start_child(const char* path, char* const argv[], const char* addition, int output, int null)
    REQUIRES(com_lock);
