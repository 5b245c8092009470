// What the agent keeps for a front that does not read.
#include "agent/spill_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <rapidcheck/gtest.h>
#include <string>
#include <utility>
#include <vector>

namespace {

// Adds random pieces and takes random parts from the front. The file is filled, emptied and filled again.
RC_GTEST_PROP(SpillQueue, GivesBackWhatWasAddedInItsOrder, ()) {
    client::spill_queue queue;
    std::string wanted;
    const auto steps = *rc::gen::container<std::vector<std::pair<std::size_t, std::size_t>>>(
        rc::gen::pair(rc::gen::inRange<std::size_t>(0, 1'000'000), rc::gen::inRange<std::size_t>(0, 40)));
    for (std::size_t number = 0; number < steps.size(); ++number) {
        const std::string piece(steps[number].first, static_cast<char>('a' + number % 26));
        queue.add(piece);
        wanted += piece;
        for (std::size_t i = 0; i < steps[number].second && !wanted.empty(); ++i) {
            const std::string_view front = queue.front();
            RC_ASSERT(!front.empty() && front.size() <= wanted.size());
            const std::size_t taken = std::min(front.size(), 1 + front.size() * i / 8);
            RC_ASSERT(front.substr(0, taken) == std::string_view(wanted).substr(0, taken));
            queue.pop(taken);
            wanted.erase(0, taken);
        }
        RC_ASSERT(queue.empty() == wanted.empty());
    }
}

}  // namespace
