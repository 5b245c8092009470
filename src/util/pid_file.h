// PID files.
#pragma once

// Writes the own process id in decimal, nothing else, into path (created with mode 0644, truncated when it exists).
// A path that cannot be opened is traced and left as it was. Returns the result of the close or of the trace call.
int write_pidfile(const char* path);
