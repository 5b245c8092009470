// Commands with which a relay speaks for another host and passes that host's messages on. Each handler gets the HMI, the
// number of words and the words, word 0 being the command. The connection's own thread.
#pragma once

#include "comm/hmi_table.h"

// "ipset address": from now on that address, with nothing behind it, is the connection's. No answer on success; a restricted address closes
// the socket (soc becomes -1).
void do_ipset(hmistruc& hmi, int argc, char* argv[]);

// "send text": one UDP datagram to the log receiver, its source address the one ipset named.
void do_send_syslog(hmistruc& hmi, int argc, char* argv[]);
