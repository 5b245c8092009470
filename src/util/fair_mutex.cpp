#include "util/fair_mutex.h"

void fair_mutex::lock() {
    const mutex_guard guard(state_);
    if (!locked_) {
        locked_ = true;
        return;
    }
    waiter self;
    (first_ == nullptr ? first_ : last_->next) = &self;
    last_ = &self;
    while (!self.is_owner) {
        state_.wait(self.turn);
    }
}

void fair_mutex::unlock() {
    const mutex_guard guard(state_);
    if (first_ == nullptr) {
        locked_ = false;
        return;
    }
    waiter& next = *first_;
    first_ = next.next;
    next.is_owner = true;
    pthread_cond_signal(&next.turn);  // under state_: the waiter is gone as soon as it sees that it is the owner
}

bool fair_mutex::try_lock() {
    const mutex_guard guard(state_);
    if (locked_) {
        return false;
    }
    locked_ = true;
    return true;
}
