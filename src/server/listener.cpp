#include "server/listener.h"

#include "comm/address_restriction.h"
#include "comm/disconnect.h"
#include "comm/reply.h"
#include "process/vgd_end.h"
#include "server/connection.h"
#include "trace/trace.h"
#include "util/clock.h"

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>

namespace {

constexpr int backlog = 128;
constexpr int exit_failure = 1;
constexpr int exit_port_in_use = 2;  // the supervisor does not start the scheduler again

void set_option_or_exit(int soc, int option, const char* name) {
    const int on = 1;
    if (setsockopt(soc, SOL_SOCKET, option, &on, sizeof on) != 0) {
        trprintf("Error: setsockopt(%s) failed. errno=%d\n", name, errno);
        exit_process(exit_failure);
    }
}

sockaddr_in local_address() {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<std::uint16_t>(st->port));
    local.sin_addr.s_addr = INADDR_ANY;
    if (st->bound_ip_address[0] != '\0') {
        const in_addr_t address = inet_addr(st->bound_ip_address);
        local.sin_addr.s_addr = address == INADDR_NONE ? INADDR_ANY : address;
    }
    return local;
}

void bind_or_exit(int soc) {
    const sockaddr_in local = local_address();
    address_text text;
    trprintf("binding to %s (port %d) ...\n", format_address(local.sin_addr.s_addr, text), st->port);
    if (bind(soc, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        const int error = errno;
        trprintf("Error: bind failed. portno=%d errno=%d\n", st->port, error);
        exit_process(error == EADDRINUSE ? exit_port_in_use : exit_failure);
    }
    trprintf("Info:comm:bind succeed. (port %d)\n", st->port);
}

bool is_allowed(std::uint32_t address) {
    if (!is_address_restricted()) {
        return true;
    }
    trprintf("info:ip_address_restriction is defined.\n");
    if (check_ip_address_restriction(address) != 0) {
        trprintf("Warning:address is not allowed to connect.\n");
        return false;
    }
    trprintf("address is allowed.\n");
    return true;
}

// An answer is written line by line. With delayed sending, every second line would wait for an acknowledgement.
// The keep-alive options find a dead host after two minutes, not after the system's two hours: until then it takes alarms
// and may hold the operators' lock. There is no TCP_USER_TIMEOUT: it would also end a client that lives but does not read
// for a while. An option that cannot be set keeps the system's value.
void set_tcp_options(int soc) {
    constexpr struct {
        int option;
        int value;
    } options[] = {
        {TCP_NODELAY, 1},
        {TCP_KEEPIDLE, 60},   // seconds without a packet before the first probe
        {TCP_KEEPINTVL, 15},  // seconds between probes
        {TCP_KEEPCNT, 4},     // probes without an answer
    };
    for (const auto& row : options) {
        setsockopt(soc, IPPROTO_TCP, row.option, &row.value, sizeof row.value);
    }
}

void* hmi_thread(void* entry) {
    hmi_main(*static_cast<hmistruc*>(entry));
    return nullptr;
}

// remote is a parameter because the new thread may change entry.remote at once.
void start_hmi_thread(hmistruc& entry, const char* remote) {
    pthread_t thread{};
    if (const int result = pthread_create(&thread, nullptr, hmi_thread, &entry); result != 0) {
        trprintf("Error:comm:thread create fails.(%d) errno=%d\n", result, errno);
        refuse_connection(entry.soc);
        hmistruc_put_unserved(entry);
        return;
    }
    const auto tid = static_cast<std::uint32_t>(thread);
    entry.tid = tid;
    pthread_detach(thread);
    trprintf("Info:thread %08x is spawned for hmi(%s)\n", tid, remote);
}

}  // namespace

int init_socket() {
    const int soc = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (soc < 0) {
        trprintf("Error: socket() failed. errno=%d\n", errno);
        exit_process(exit_failure);
    }
    set_option_or_exit(soc, SO_REUSEADDR, "REUSEADDR");
    set_option_or_exit(soc, SO_KEEPALIVE, "KEEPALIVE");
    bind_or_exit(soc);
    if (listen(soc, backlog) != 0) {
        trprintf("Error: listen failed. errno=%d\n", errno);
        exit_process(exit_failure);
    }
    return soc;
}

void arrive_new_hmi(int soc, const sockaddr_in& peer) {
    address_text remote;
    format_address(peer.sin_addr.s_addr, remote);
    trprintf("Info:hmi(%s:%d) is coming\n", remote, ntohs(peer.sin_port));
    if (!is_allowed(peer.sin_addr.s_addr)) {
        refuse_connection(soc);
        return;
    }
    hmistruc* entry = hmistruc_get();
    if (entry == nullptr) {
        trprintf("Error:comm:no resource for hmi(%s)\n", remote);
        shutdown_connection(soc);
        close_connection(soc);
        return;
    }
    set_tcp_options(soc);
    entry->peer = peer;
    hmistruc_set_text(entry->remote, remote);
    entry->soc = soc;
    entry->login = static_cast<std::uint32_t>(now_seconds());
    start_hmi_thread(*entry, remote);
}
