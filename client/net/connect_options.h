// How all connections of a process are made.
#pragma once

#include <string>

namespace client {

struct connect_options {
    std::string source;         // local IPv4 address to connect from; empty: the system chooses
    unsigned timeout = 0;       // seconds, of -t; 0: the limits of limits.h
    std::string user;           // sent with "hello" on each new connection; empty: not sent
    std::string password_file;  // empty: the listener is asked for the password, with one host only
};

}  // namespace client
