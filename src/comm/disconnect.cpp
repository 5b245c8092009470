#include "comm/disconnect.h"

#include "trace/trace.h"

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

void shutdown_connection(int soc) {
    if (const int result = shutdown(soc, SHUT_RDWR); result != 0) {
        trprintf("Error:comm:shutdown = %d (errno %d)\n", result, errno);
    }
}

void close_connection(int& soc) {
    constexpr int rounds = 64;  // a limit, since a peer can send faster than we discard
    char discarded[4096];
    for (int i = 0; i < rounds && recv(soc, discarded, sizeof discarded, MSG_DONTWAIT) > 0; ++i) {
    }
    close(soc);
    soc = -1;
}

void refuse_connection(int& soc) {
    shutdown(soc, SHUT_RDWR);
    close_connection(soc);
}
