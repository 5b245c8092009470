// The hosts of one command: a list such as "db1,db2:9981", or a file with one host a line.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct host_name {
    std::string label;       // as the operator wrote it; printed before the host's lines
    std::string name;        // name or IPv4 address: letters in lower case, digits, '.', '-' and '_'
    std::uint16_t port = 0;  // host byte order
    std::map<std::string, std::string> tags = {};  // what follows the host in a file, such as "rack=7 room=b"
};

// Returns "NAME:PORT", by which the mailbox and the state files know a scheduler. It is the same for localhost and
// 127.0.0.1.
std::string key_of(const host_name& host);

// Returns the number of a TCP port from 1 to 65535; nothing when the text is none.
std::optional<std::uint16_t> port_of(std::string_view text);

// Returns the hosts of a comma-separated list, at least one, and each only once. port is for entries without one.
// Throws std::runtime_error when there are none, and when an entry is not name[:port].
std::vector<host_name> parse_hosts(const std::string& list, std::uint16_t port);

// The same from a file, or from standard input when file is "-": one host a line, with tags behind it; # begins a
// comment. A byte order mark and lines that end with CR LF are accepted.
std::vector<host_name> read_hosts(const std::string& file, std::uint16_t port);
