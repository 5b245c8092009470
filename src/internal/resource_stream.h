// The stream of resource data that a connection sends to the resource receiver.
#pragma once

#include "comm/hmi_table.h"

// "res_data text": one line to the resource receiver, which the first line connects to; "res_send" ends the stream.
// argc words in argv, word 0 being the command. The connection's own thread; takes no lock.
void do_send_resource(hmistruc& hmi, int argc, char* argv[]);
