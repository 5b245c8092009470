// What a line of the event pipe means, found in another way than the daemon's: for the fuzzer and the property test.
#pragma once

#include <string>

struct event_oracle {
    explicit event_oracle(std::string line) : text(std::move(line)) {
        for (const std::string prefix : {"ALL;", "MB;"})
            if (text.starts_with(prefix)) text.erase(0, prefix.size());
        is_message = text.find_first_of("EWIDM") == 0 && text.find_first_not_of("0123456789", 1) == 5 && text[5] == ':';
        ends_process = is_message && text.starts_with("I0199");
        is_queued = is_message && text.substr(3, 2) != "11";
    }

    std::string text;           // without prefixes
    bool is_message = false;    // else the line is ignored
    bool ends_process = false;  // and nothing else
    bool is_queued = false;     // for the operators
};
