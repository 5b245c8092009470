// Draws the live view of one host.
#pragma once

#include "watch/changes.h"

#include <deque>
#include <string>
#include <vector>

namespace client {

// The state of one host in a live view.
struct host_row {
    std::string label;
    bool known = false;      // it has answered or failed at least once
    std::string trouble;     // why there is no answer; empty while there is one
    bool is_silent = false;  // the trouble: the connection is there, the answer is not
    std::string since;       // date of the start of the trouble
    std::vector<condition> conditions;
    received_message newest;  // its text is empty before the first
    unsigned long lost = 0;   // messages lost since the view began
};

// A message in the list of a live view.
struct listed_message {
    std::size_t host;
    received_message received;
};

// Draws the host, a line for the operator (empty: none) and the newest messages that have room. Returns their number; 0
// when the terminal could not be written.
std::size_t draw_host(const host_row& host, const std::string& notice,
                      const std::deque<listed_message>& messages);

}  // namespace client
