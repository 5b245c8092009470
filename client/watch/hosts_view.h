// Draws the live view of many hosts: one line for each host, the worst first.
#pragma once

#include "watch/watch_view.h"

#include <string>
#include <string_view>
#include <vector>

namespace client {

// The state of the view that keys change.
struct host_keys {
    std::string filter;    // show only hosts whose line contains this, in upper or lower case
    bool editing = false;  // the filter is being typed
    std::size_t top = 0;   // lines above the first one shown
    bool quits = false;

    std::size_t page = 20;  // lines that a page key moves; draw_hosts sets it to the number of lines shown

    // Carries out keys, given as the bytes of the terminal.
    void handle(std::string_view keys);

private:
    std::size_t handle_first(std::string_view keys);
    void edit(char key);
};

// Draws as many hosts as fit, below a line for the operator (empty: none). Limits keys.top to the last host, and sets
// keys.page. Returns the hosts whose newest message was on the screen; none when the terminal could not be written.
std::vector<std::size_t> draw_hosts(const std::vector<host_row>& rows, const std::string& notice,
                                    host_keys& keys);

}  // namespace client
