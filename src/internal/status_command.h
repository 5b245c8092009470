// The status command.
#pragma once

#include "comm/hmi_table.h"

// Reports the raised conditions with their dates, then the HMI's messages, oldest first, and the count of lost ones.
// Further words are ignored. The connection's own thread.
void do_status(hmistruc& hmi, int argc, char* argv[]);
