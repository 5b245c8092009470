// The show command: which addresses may connect and which clients are connected.
#pragma once

#include "comm/hmi_table.h"

// "show allowed_ip" or "show ip"; anything else gets the usage text. The connection's own thread.
void do_show(hmistruc& hmi, int argc, char* argv[]);
