// The conditions that `status` shows while they are set, in its order.
#pragma once

#include <string_view>

namespace client {

constexpr const char* condition_names[] = {"error",  "prevent", "diag",  "conf",
                                           "patrol", "snap",    "korvo", "padiag"};

// False for the two that say that a timer job exists, and for the date of the configuration.
constexpr bool is_fault(std::string_view condition) {
    return condition != "patrol" && condition != "padiag" && condition != "confdate";
}

}  // namespace client
