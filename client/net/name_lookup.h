// Look-ups of names in other threads, because the resolver has only blocking calls.
#pragma once

#include "term/descriptor.h"

#include <atomic>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <vector>

struct name_lookup {
    std::string name;
    descriptor ended;  // readable when the look-up has ended
    std::atomic<bool> is_done = false;
    // The thread of the look-up writes these; valid when it has ended.
    std::vector<in_addr> addresses = {};
    std::string problem = {};  // why there are none
};

// Starts a look-up, or queues it while all threads are busy. The caller may drop it before it has ended.
// Throws std::system_error when the system refuses a descriptor or the first thread.
std::shared_ptr<name_lookup> look_up(const std::string& name);
