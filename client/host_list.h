// The hosts of one command: a list such as "db1,db2:9981", or a file with one host a line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace client {

struct endpoint;

struct host_name {
    std::string label;       // as the operator wrote it; printed before the host's lines
    std::string name;        // name or IPv4 address
    std::uint16_t port = 0;  // host byte order
};

// The same as an endpoint without a limit of time or an address of our own.
endpoint endpoint_of(const host_name& host);

// Adds the hosts of a comma-separated list, each only once. Returns false when an entry is not name[:port]; problem
// then names it. port is for entries without one.
bool add_hosts(std::string_view list, std::uint16_t port, std::vector<host_name>& hosts,
               std::string& problem);

// The same from a file, or from standard input when file is "-": one host a line, # begins a comment.
bool read_hosts(const std::string& file, std::uint16_t port, std::vector<host_name>& hosts,
                std::string& problem);

}  // namespace client
