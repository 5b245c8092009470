// The child's part of a module run: from the fork to the exec.
#pragma once

#include "command/com_lock.h"

#include <sys/types.h>

// Allocates the environment for module programs. Returns 0, or -1 when memory is short. Start-up only.
int init_child_environment() REQUIRES(com_lock);

// Starts the program at path with argv in a new session and process group. It has no standard input; standard output
// is output, standard error is null (a descriptor of /dev/null), no other descriptor is open. addition ("NAME=value"
// or empty) is added to the scheduler's environment.
// When the program cannot be executed, the child writes a message to output and ends with exit code 1.
// Returns the process id, or -1 with errno.
pid_t start_child(const char* path, char* const argv[], const char* addition, int output, int null) REQUIRES(com_lock);
