// Connections whose last status a process still waits for, because the scheduler does not answer. There is one lock file
// for each scheduler.
#pragma once

#include "mail/state_file.h"

#include <chrono>
#include <string>

namespace client {

class held_connection {
public:
    using clock = std::chrono::steady_clock;

    // Declares that this process holds a connection that was made at this time. When another process does already, this
    // object is empty.
    held_connection(const std::string& key, clock::time_point connected_at);
    ~held_connection();
    held_connection(const held_connection&) = delete;
    held_connection& operator=(const held_connection&) = delete;

    bool is_held() const { return file_.is_open(); }

    // True when another process holds one that was made before this time, when the making of ours began: it gets all
    // messages that ours gets.
    static bool older_exists(const std::string& key, clock::time_point connecting_at);

    // True when any process holds one.
    static bool exists(const std::string& key) { return older_exists(key, clock::time_point::max()); }

private:
    state_file file_;
};

}  // namespace client
