// How the live view of many hosts looks: one line a host, the worst first.
#pragma once

#include "host_list.h"
#include "report.h"

#include <string>
#include <string_view>
#include <vector>

namespace client {

// What is known of one host.
struct host_row {
    std::string label;
    bool known = false;   // it has answered, or failed to
    std::string trouble;  // why it is not reachable; empty while it is
    std::string since;    // date since when there is trouble
    std::vector<condition> conditions;
    message newest;          // its text is empty before the first
    unsigned long lost = 0;  // messages, since the view began
};

// What the keys have made of the view.
struct fleet_keys {
    std::string filter;    // only hosts whose line holds this, in any case of letters
    bool editing = false;  // the filter is being typed
    std::size_t top = 0;   // lines scrolled away
    bool leaving = false;

    std::size_t page = 20;  // lines that a page key moves: as many as are shown

    // Takes keys as the terminal sends them.
    void take(std::string_view keys);

private:
    std::size_t take_one(std::string_view keys);
    void edit(char key);
};

// Draws as many lines as fit. Corrects keys.top when it is behind the last host, and sets keys.page.
void draw_fleet(const std::vector<host_row>& rows, fleet_keys& keys);

}  // namespace client
