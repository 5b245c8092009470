#include "internal/datagram.h"

#include "unit_support.h"

#include <arpa/inet.h>

TEST(Datagram, BytesOnTheWire) {
    for (const std::size_t length : {5U, 0U, 1019U, 1020U, 1021U, 2000U}) {
        const datagram packet({inet_addr("10.0.0.5")}, {inet_addr("192.168.7.1")}, 0x1234, unit::pattern(length));
        const std::string payload = unit::pattern(std::min<std::size_t>(length, 1020));
        const std::size_t size = payload.size() + 8;
        std::string expected = {"\x45\0\0\0\0\0\0\0\xff\x11\0\0\x0a\0\0\x05\xc0\xa8\x07\x01\0\0\x12\x34", 24};
        expected += {static_cast<char>(size / 256), static_cast<char>(size % 256), '\0', '\0'};
        EXPECT_EQ(std::string(packet.data(), packet.data() + packet.size()), expected + payload) << length;
    }
}
