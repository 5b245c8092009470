// Handlers of the short internal commands. Each gets the HMI, the number of words and the words; word 0 is the command.
// Words that a handler does not need are ignored. The connection's own thread.
#pragma once

#include "comm/hmi_table.h"

// Answers "Good-bye." and closes the socket (soc becomes -1).
void do_quit(hmistruc& hmi, int argc, char* argv[]);

// Stores the user's name and runs the module command "ehello", which sends the answer.
void do_hello(hmistruc& hmi, int argc, char* argv[]);

// "restart sched" ends the process with exit code 0, without an answer; anything else does nothing.
void do_restart(hmistruc& hmi, int argc, char* argv[]);

// Lists the modules, or switches one on or off.
void do_modcntl(hmistruc& hmi, int argc, char* argv[]);
