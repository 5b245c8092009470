#include "util/mark_question.h"

#include "util/clock.h"
#include "util/mutex.h"

namespace {

// Makes comparing and clearing one step, or a report between them would be lost. No other lock is taken under it.
constinit posix_mutex marks_lock;

}  // namespace

void set_and_stamp(status_mark& mark) {
    const mutex_guard guard(marks_lock);
    mark.set = 1;
    get_tick(mark.stamp);
    mark.reports = mark.reports + 1;
}

bool mark_question::clear_mark() {
    const mutex_guard guard(marks_lock);
    if (mark_.reports != reports_) {
        return false;
    }
    mark_.set = 0;
    return true;
}
