// Runs one module program as a child process and relays its output.
#pragma once

#include "command/com_lock.h"

// Runs the program at path with argv and waits for its end. Needs com_lock, because alarm clock and SIGALRM belong to
// the whole process.
//   soc          socket that receives the output, LF as CR LF, and the terminating line; -1 for none
//   timeout      seconds after the exec, above 0, at which the program's process group is killed
//   addition     "NAME=value" for the environment, or empty
//   capture      with soc -1: receives the first capture_size bytes of the output unchanged, without a NUL;
//                null drops the output
// Returns the child's wait status (0 for exit code 0), or -1 when it could not be started.
int start_command(const char* path, int soc, unsigned timeout, char* const argv[], const char* addition, char* capture,
                  int capture_size) REQUIRES(com_lock);
