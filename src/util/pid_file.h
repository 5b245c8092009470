// PID files.
#pragma once

// Writes the own process id in decimal, nothing else, into path (created with mode 0644, truncated when it exists).
// Returns 0, or -1 with errno when path cannot be opened; the old file then stays as it was.
int write_pidfile(const char* path);
