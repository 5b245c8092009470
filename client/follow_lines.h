// The lines that a follower writes.
#pragma once

#include "report.h"

#include <string>
#include <string_view>

namespace client {

struct endpoint;

class follow_lines {
public:
    // level_prefix: each line begins with its syslog priority, such as "<3>", for the journal and logger(1).
    follow_lines(const endpoint& of, bool level_prefix);

    std::string connected() const;
    std::string disconnected(const std::string& reason) const;
    std::string set(const condition& which) const;
    std::string cleared(const condition& which) const;
    std::string received(const message& what) const;
    std::string lost(unsigned long count) const;

private:
    const endpoint& of_;
    bool level_prefix_;
};

// Returns "error", "warning" or "info", from the first letter of a message.
const char* severity_of(const message& what);

}  // namespace client
