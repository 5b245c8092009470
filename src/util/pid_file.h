// PID files.
#pragma once

// Writes the id of the calling process, in decimal and without a newline, into path (created with mode 0644, truncated
// when it exists). Returns 0, or -1 with errno when path cannot be opened; the old file then stays unchanged.
int write_pidfile(const char* path);
