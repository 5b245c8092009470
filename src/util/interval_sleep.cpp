#include "util/interval_sleep.h"

#include "util/clock.h"

#include <algorithm>

namespace {

// A wall clock that lags behind the sleep by less is being slewed, not set.
constexpr std::int64_t slew_max = 1000;  // milliseconds

std::int64_t wall_ms() {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Relative, so that a clock set back by hours cannot make it sleep for hours.
past_sleep sleep_for(std::int64_t ms, std::int64_t now) {
    const std::int64_t start = monotonic_ms();
    const std::timespec left{ms / 1000, ms % 1000 * 1'000'000};
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
// - The clock runs as it should, or is set forward: the sleep ends behind a multiple, the one to return. A multiple
//   that was jumped over was not shown.
// - It is set back: the sleep ends too early for the multiple it was meant for. The one before it was shown on the
//   way, unless that is longer ago than the sleep began. So a minute that comes again after an hour runs again.
// - It is set back by less, to before the multiple returned last: that one comes again, and is not returned again.
// - It is slewed: the sleep may end a little early; the rest is slept.
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
