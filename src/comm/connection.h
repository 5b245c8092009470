// One HMI connection: its command lines, from the first read to the end.
#pragma once

#include "comm/hmi_table.h"

#include <string_view>

constexpr int line_max = 16384;  // bytes of a request line, its NUL included

// Reads one request line, ended by CR, into buf; LF and NUL are dropped. Returns the number of characters stored,
// size - 1 when the line is longer (the rest is the next line), -1 when the connection ended with nothing read.
// The text is always NUL-terminated.
int read_line(int fd, char* buf, int size);

// Copies the line up to its first TAB into name.
void get_first_token(const char* line, char (&name)[line_max]);

// Follow-up work after an external command: checks conditions that the command may have cleared, and the forwarding
// switch. Sends nothing to the HMI. The connection's own thread.
void do_cont_command(std::string_view line);

// Shuts a connection down in both directions and tells the trace when that fails. The socket stays open.
void shutdown_connection(int soc);

// Thread body: serves the connection and gives everything back when it ends.
void hmi_main(hmistruc& hmi);
