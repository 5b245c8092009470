// The interactive session, and the same commands read line by line from a pipe.
#pragma once

struct settings;

// Returns the exit code: 0 after a session at a terminal, the last command's after a pipe.
int run_session(const settings& chosen);
