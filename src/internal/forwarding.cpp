#include "internal/forwarding.h"

#include "comm/address_restriction.h"
#include "comm/disconnect.h"
#include "comm/login.h"
#include "comm/reply.h"
#include "internal/datagram.h"
#include "trace/trace.h"
#include "util/unique_fd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>

namespace {

// Accepts an address in any form of inet_aton, but no text after it: inet_aton ignores what follows a blank, and
// modules would get it as part of their client's address.
bool to_address(const char* text, in_addr& address) {
    constexpr char blanks[] = " \f\v";
    const char* behind = text + std::strcspn(text, blanks);
    return behind[std::strspn(behind, blanks)] == '\0' && inet_aton(text, &address) != 0;
}

// Checks the arguments of ipset. A failure here gets an answer; a restricted address, which is checked later, gets
// none.
bool accept_ipset(const hmistruc& hmi, int argc, char* argv[], in_addr& address) {
    trprintf("info:ipset \"%s\"\n", argc > 1 ? argv[1] : "-");
    if (argc != 2) {
        return false;
    }
    if (hmi.ipset[0] != '\0') {
        trprintf("Error:ipset already received\n");
        return false;
    }
    errno = 0;
    if (!to_address(argv[1], address)) {
        trprintf("Error:inet_aton failed for \"%s\", errno=%d\n", argv[1], errno);
        return false;
    }
    return true;
}

bool send_syslog(const hmistruc& hmi, const char* text) {
    trprintf("sending \"%s\" from %s to %s:%d\n", text, hmi.ipset, st->udp_dest_addr, st->udp_dest_port);
    in_addr source{};
    if (inet_aton(hmi.ipset, &source) == 0) {
        trprintf("Error:ipset address(=\"%s\") failed to convert.\n", hmi.ipset);
        return false;
    }
    sockaddr_in receiver{};
    receiver.sin_family = AF_INET;
    if (inet_aton(st->udp_dest_addr, &receiver.sin_addr) == 0) {
        trprintf("Error:udp_dest_addr(=\"%s\") failed to convert.\n", st->udp_dest_addr);
        return false;
    }
    const datagram packet(source, receiver.sin_addr, static_cast<std::uint16_t>(st->udp_dest_port), text);
    const unique_fd raw(socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
    if (!raw) {
        trprintf("Error:raw socket failed to create, errno=%d\n", errno);
        return false;
    }
    if (sendto(raw.get(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr*>(&receiver),
               sizeof receiver) < 0) {
        trprintf("Error:sendto error, errno=%d\n", errno);
        return false;
    }
    trprintf("succeed to send data.(len=%d)\n", static_cast<int>(packet.payload_size()));
    return true;
}

}  // namespace

void do_ipset(hmistruc& hmi, int argc, char* argv[]) {
    in_addr address{};
    if (!accept_ipset(hmi, argc, argv, address)) {
        reply_over(hmi.soc, 1, 0);
        return;
    }
    hmistruc_set_text(hmi.ipset, argv[1]);
    hmistruc_set_text(hmi.remote, argv[1]);
    if (check_ip_address_restriction(address.s_addr) != 0) {
        trprintf("Warning:ipset address is restricted.\n");
        refuse_connection(hmi.soc);
        return;
    }
    auth_check(hmi);
    trprintf("ipset done.\n");
}

void do_send_syslog(hmistruc& hmi, int argc, char* argv[]) {
    const bool sent = argc >= 2 && send_syslog(hmi, argv[1]);
    reply_over(hmi.soc, sent ? 0 : 1, 0);
}
