#include "comm/address_restriction.h"

#include "state/sched_status.h"
#include "trace/trace.h"

#include <arpa/inet.h>
#include <cstring>

const char* format_address(std::uint32_t address, address_text& out) {
    const in_addr binary{address};
    return inet_ntop(AF_INET, &binary, out, sizeof out);
}

bool is_address_restricted() { return st->allowed_ip_address[0].addr != 0; }

int check_ip_address_restriction(std::uint32_t address) {
    if (!is_address_restricted()) {
        return 0;
    }
    address_text text;
    if (std::strcmp(format_address(address, text), loopback_text) == 0) {
        return 0;
    }
    for (const allowed_address& allowed : st->allowed_ip_address) {
        if (allowed.addr == 0) {
            continue;
        }
        const std::uint32_t mask = htonl(allowed.mask);
        if ((allowed.addr & mask) == (address & mask)) {
            trprintf("hmi %08x matched to %08x(mask %08x)\n", address, allowed.addr, allowed.mask);
            return 0;
        }
    }
    return 1;
}
