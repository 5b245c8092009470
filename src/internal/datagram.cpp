#include "internal/datagram.h"

#include <algorithm>
#include <cstring>
#include <netinet/ip.h>
#include <netinet/udp.h>

static_assert(sizeof(iphdr) + sizeof(udphdr) == datagram_header_size);
static_assert(datagram_header_size + datagram_payload_max <= datagram_buffer_size);

datagram::datagram(in_addr source, in_addr destination, std::uint16_t port, std::string_view text)
    : payload_size_(std::min(text.size(), datagram_payload_max)) {
    iphdr ip{};  // total length, identification and checksum stay 0; the system fills them in
    ip.version = 4;
    ip.ihl = sizeof ip / 4;
    ip.ttl = 255;
    ip.protocol = IPPROTO_UDP;
    ip.saddr = source.s_addr;
    ip.daddr = destination.s_addr;
    udphdr udp{};  // source port 0 and checksum 0 mean "none"
    udp.dest = htons(port);
    udp.len = htons(static_cast<std::uint16_t>(payload_size_ + sizeof udp));
    std::memcpy(bytes_, &ip, sizeof ip);
    std::memcpy(bytes_ + sizeof ip, &udp, sizeof udp);
    std::copy_n(text.data(), payload_size_, bytes_ + datagram_header_size);
}
