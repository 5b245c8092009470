// One HMI connection: its command lines, from the first read to the end.
#pragma once

#include "comm/hmi_table.h"
#include "comm/line_reader.h"

#include <string_view>

// Copies the line up to its first TAB into name.
void get_first_token(const char* line, char (&name)[line_max]);

// Follow-up work after an external command: rechecks the conditions that the command may have cleared, and the
// forwarding switch. Sends nothing to the HMI. The connection's own thread.
void do_cont_command(std::string_view line);

// Thread body: serves the connection, then closes its sockets and frees its lock and table entry.
void hmi_main(hmistruc& hmi);
