// Draws the live view of many hosts: one line for each host, the worst first.
#pragma once

#include "host_list.h"
#include "report.h"

#include <string>
#include <string_view>
#include <vector>

namespace client {

// The state of one host.
struct host_row {
    std::string label;
    bool known = false;   // it has answered or failed at least once
    std::string trouble;  // why it cannot be reached; empty while it can
    std::string since;    // date of the start of the trouble
    std::vector<condition> conditions;
    message newest;          // its text is empty before the first
    unsigned long lost = 0;  // messages lost since the view began
};

// The state of the view that keys change.
struct fleet_keys {
    std::string filter;    // show only hosts whose line contains this, in upper or lower case
    bool editing = false;  // the filter is being typed
    std::size_t top = 0;   // lines above the first one shown
    bool leaving = false;

    std::size_t page = 20;  // lines that a page key moves; draw_fleet sets it to the number of lines shown

    // Carries out keys, given as the bytes of the terminal.
    void take(std::string_view keys);

private:
    std::size_t take_one(std::string_view keys);
    void edit(char key);
};

// Draws as many lines as fit. Limits keys.top to the last host, and sets keys.page.
void draw_fleet(const std::vector<host_row>& rows, fleet_keys& keys);

}  // namespace client
