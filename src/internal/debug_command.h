// The debug command: dumps of the timer jobs and of the HMI table.
#pragma once

#include "comm/hmi_table.h"

#include <ctime>

// "debug timer", "debug hmi" or "debug hmi all"; anything else gets the usage text. The connection's own thread.
void do_debug(hmistruc& hmi, int argc, char* argv[]);

// Writes the HMI table to a socket. argument is "all", which adds free entries and waiting messages, or null.
void show_hmi_info(int soc, const char* argument);

// Returns a text like "2026/11/24 22:03:42", empty for null. It is valid until the same thread's next call.
const char* time2string(const std::tm* time);
