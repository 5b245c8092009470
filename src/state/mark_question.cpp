#include "state/mark_question.h"

#include "util/clock.h"
#include "util/mutex.h"

namespace {

// Makes comparing and clearing one step, or a report between them would be lost. No other lock is taken under it.
constinit posix_mutex marks_lock;

}  // namespace

void set_and_stamp(status_mark& mark) {
    const mutex_guard guard(marks_lock);
    get_tick(mark.stamp);  // first, so that no reader sees the new condition with an old date
    mark.set = 1;
    mark.reports = mark.reports + 1;
}

void mark_question::answered(int status) {
    if (effect_ != answer_effect::success_clears && status == condition_status) {
        set_and_stamp(mark_);
    } else if (effect_ == answer_effect::condition_sets_and_others_clear ||
               (effect_ == answer_effect::success_clears && status == 0)) {
        clear_mark();
    }
}

void mark_question::clear_mark() {
    const mutex_guard guard(marks_lock);
    if (mark_.reports == reports_) {
        mark_.set = 0;
        has_cleared_ = true;
    }
}
