// An IPv4 and UDP datagram with headers of our own, so that its source address can be another host's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <string_view>

constexpr std::size_t datagram_header_size = 28;  // IPv4 without options (20) and UDP (8)
constexpr std::size_t datagram_payload_max = 1020;
constexpr std::size_t datagram_buffer_size = 1052;

class datagram {
public:
    // source and destination in network byte order, port in host byte order; text is cut at 1020 bytes.
    datagram(in_addr source, in_addr destination, std::uint16_t port, std::string_view text);

    [[nodiscard]] const std::uint8_t* data() const { return bytes_; }
    [[nodiscard]] std::size_t size() const { return datagram_header_size + payload_size_; }
    [[nodiscard]] std::size_t payload_size() const { return payload_size_; }

private:
    std::uint8_t bytes_[datagram_buffer_size] = {};
    std::size_t payload_size_;
};
