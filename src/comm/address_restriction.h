// Which client addresses may connect, and addresses as text.
#pragma once

#include <cstdint>
#include <netinet/in.h>

constexpr char loopback_text[] = "127.0.0.1";  // always admitted, and never asked to log in

using address_text = char[INET_ADDRSTRLEN];

// Writes an IPv4 address (network byte order) as dotted text and returns it. Any thread.
const char* format_address(std::uint32_t address, address_text& out);

// True when allowed_ip_address of st restricts connections: its first entry is in use.
bool is_address_restricted();

// 0 when a client address (network byte order) may connect, 1 when it may not. Any thread, no lock.
int check_ip_address_restriction(std::uint32_t address);
