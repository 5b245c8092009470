#include "util/interval_sleep.h"

#include "util/clock.h"

#include <algorithm>

namespace {

// When the wall clock advanced less than the sleep lasted, by up to this much, it was slowed down and not set back.
constexpr std::int64_t slew_max = 1000;  // milliseconds

std::int64_t wall_ms() {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// A relative sleep, so that a clock set back by hours cannot prolong it by hours.
past_sleep sleep_for(std::int64_t ms, std::int64_t now) {
    const std::int64_t start = monotonic_ms();
    const std::timespec left{ms / 1000, static_cast<long>(ms % 1000) * 1'000'000};
    nanosleep(&left, nullptr);
    return {now, wall_ms(), std::max(ms, monotonic_ms() - start)};
}

}  // namespace

std::int64_t multiple_shown(const past_sleep& sleep, std::int64_t interval) {
    const std::int64_t multiple = sleep.ended / interval * interval;
    const bool was_set_back = sleep.ended - sleep.began < sleep.lasted - slew_max;
    const bool is_shown = was_set_back ? sleep.ended - multiple <= sleep.lasted : multiple > sleep.began;
    return is_shown ? multiple : -1;
}

// The rule: each multiple that the wall clock shows while the loop sleeps is returned once.
// - The clock runs normally or is set forward: the last multiple before the end of the sleep is returned, even if the
//   clock skipped it: the sleep does not tell. Others that the clock skipped are not returned.
// - The clock is set back: the sleep ends before the multiple it was meant for. The last multiple before its end counts
//   as shown, unless it is longer ago than the sleep lasted. So a minute that comes again after an hour runs again.
// - The clock is set back a little, to before the multiple returned last: that multiple comes again, but is not
//   returned again.
// - The clock is slowed down: the sleep may end a little early, and the loop sleeps for the rest.
std::time_t interval_sleep::next() {
    for (;;) {
        const std::int64_t now = wall_ms();
        const past_sleep sleep = sleep_for(interval_ - now % interval_, now);
        const std::int64_t multiple = multiple_shown(sleep, interval_);
        if (multiple >= 0 && multiple != last_) {
            last_ = multiple;
            return sleep.ended / 1000;
        }
    }
}
