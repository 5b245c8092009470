// The listening socket, and the admission of each connection.
#pragma once

#include <netinet/in.h>

// Creates the listening socket and returns it. On failure it ends the process: exit code 2 when the port is in use, 1
// otherwise. Main thread only.
int init_socket();

// Admits an accepted connection, or refuses it by closing it without an answer. Owns soc. Main thread only.
void arrive_new_hmi(int soc, const sockaddr_in& peer);
