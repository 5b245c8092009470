// The conditions that `status` shows while they are set, in its order.
#pragma once

namespace client {

constexpr const char* condition_names[] = {"error",  "prevent", "diag",  "conf",
                                           "patrol", "snap",    "korvo", "padiag"};

}  // namespace client
