// Trace, error trace and event log, which record what the scheduler does. Each file is rotated by size.
#pragma once

#include <cstddef>

constexpr std::size_t trace_line_size = 512;  // bytes of a finished line, its NUL included
constexpr long rotation_threshold = 262144;   // bytes; a larger file is rotated before the next line

// Sets the names of the three files: path, path + "err", and event_log_path of st. Returns 0.
// Called once by start-up; before that no line is written.
int trinit(const char* path);

// Writes one line "date time thr:id message" to the trace. The message ends with "\n". A line longer than 507
// characters is cut and ends in "...\n". Tabs become blanks. With debug set the line goes to standard output.
// Any thread, never while holding mp. Leaves errno unchanged. Returns 0, or -1 before trinit.
[[gnu::format(printf, 1, 2)]] int trprintf(const char* format, ...);

// Appends a finished line to the trace file and, when it holds "Error", "fail", "Warn" or "Info", to the error trace.
// Returns 0, or -1 when a file cannot be opened. Called by trprintf, under mp.
int trflush(const char* line);

// Moves name.2 to name.3, name.1 to name.2, name.0 to name.1 and name to name.0. Returns the result of the last move.
int tr_rotate(const char* name);

// Renames from to to, replacing it. When from does not exist, nothing changes. Returns the result of rename.
int mv_if_exist(const char* from, const char* to);

// Appends "date time : text\n" to the event log. Event thread only (takes no lock).
// Returns 0, or -1 before trinit or when the file cannot be opened.
int event_log(const char* text);

// Returns the calling thread's id as traces and tables show it: the low 32 bits of pthread_self().
unsigned thread_id();
