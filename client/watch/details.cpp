#include "watch/details.h"

namespace client {

const std::vector<detail>& details() {
    static const std::vector<detail> all = {
        {{"show", "ip"},
         [](std::string_view answer, snapshot& known) {
             const std::size_t rows = parse_show_ip(answer).size();
             known.operators = rows > 0 ? rows - 1 : 0;  // without this connection
         }},
        {{"modcntl"},
         [](std::string_view answer, snapshot& known) { known.modules = parse_modules(answer); }},
        {{"debug", "timer"},
         [](std::string_view answer, snapshot& known) {
             known.timer_jobs = parse_timer_jobs(answer).size();
         }},
    };
    return all;
}

}  // namespace client
