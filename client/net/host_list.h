// The hosts of one command: a list such as "db1,db2:9981", or a file with one host a line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace client {

struct host_name {
    std::string label;       // as the operator wrote it; printed before the host's lines
    std::string name;        // name or IPv4 address, in lower case
    std::uint16_t port = 0;  // host byte order
    std::string tags;  // what follows the host in a file, such as "rack=7 room=b"; empty when nothing does
};

// Returns "NAME:PORT", by which the mailbox and the state files know a scheduler. It is the same for localhost and
// 127.0.0.1.
std::string key_of(const host_name& host);

// Puts the hosts of a comma-separated list into `hosts`, each only once; `hosts` must be empty. Returns false when an
// entry is not name[:port]; problem then names it. port is for entries without one.
bool add_hosts(std::string_view list, std::uint16_t port, std::vector<host_name>& hosts,
               std::string& problem);

// The same from a file, or from standard input when file is "-": one host a line, with tags behind it; # begins a
// comment. A byte order mark and lines that end with CR LF are accepted.
bool read_hosts(const std::string& file, std::uint16_t port, std::vector<host_name>& hosts,
                std::string& problem);

}  // namespace client
