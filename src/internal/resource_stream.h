// The stream of resource data that a connection sends to the resource receiver.
#pragma once

#include "comm/hmi_table.h"

// "res_data text": sends one line to the resource receiver; the first line opens the connection. "res_send": ends the
// stream. argv holds argc words; word 0 is the command. The connection's own thread; takes no lock.
void do_send_resource(hmistruc& hmi, int argc, char* argv[]);
