// Commands of a relay that connects on behalf of another host and passes on that host's messages. Each handler gets
// the HMI, the number of words and the words; word 0 is the command. The connection's own thread.
#pragma once

#include "comm/hmi_table.h"

// "ipset address": the connection counts as coming from that address from now on. Text after the address is an error.
// No answer on success. A restricted address closes the socket (soc becomes -1).
void do_ipset(hmistruc& hmi, int argc, char* argv[]);

// "send text": sends one UDP datagram to the log receiver. Its source address is the one that ipset set.
void do_send_syslog(hmistruc& hmi, int argc, char* argv[]);
