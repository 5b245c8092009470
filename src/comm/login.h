// Challenge-response login for clients on other machines.
#pragma once

#include "comm/hmi_table.h"

// Reads hash and salt from the file "password" under VGD_data into st. Without a valid file no client needs to log
// in. Start-up only.
void read_password_file();

// Decides whether the connection must log in and, if so, creates a new challenge. The connection's own thread.
void auth_check(hmistruc& hmi);

// Answers "login": response, nonce and client nonce, 64 characters each. The connection's own thread.
void do_login(hmistruc& hmi, int argc, char* argv[]);
