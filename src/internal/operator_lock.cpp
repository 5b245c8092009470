#include "internal/operator_lock.h"

#include "comm/reply.h"
#include "trace/trace.h"

#include <pthread.h>

std::atomic<hmistruc*> last_locked_hmi = nullptr;

namespace {

// Held from one command to a later one, which the thread-safety analysis cannot check. The thread of one connection
// takes and releases it.
pthread_mutex_t hmi_mutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

void do_hmilock(hmistruc& hmi, int /*argc*/, char** /*argv*/) {
    if (pthread_mutex_trylock(&hmi_mutex) != 0) {
        reply_text(hmi.soc, busy_line);
        trprintf("lock failed(busy) from %s\n", hmi.remote);
        return;
    }
    hmi.locked = 1;
    last_locked_hmi = &hmi;
    reply_over(hmi.soc, 0, 0);
    trprintf("lock succeed from %s\n", hmi.remote);
}

void do_hmiunlock(hmistruc& hmi, int /*argc*/, char** /*argv*/) {
    if (hmi.locked == 0) {
        reply_text(hmi.soc, busy_line);
        trprintf("unlock failed(free) from %s\n", hmi.remote);
        return;
    }
    last_locked_hmi = nullptr;
    if (pthread_mutex_unlock(&hmi_mutex) != 0) {
        last_locked_hmi = &hmi;
        reply_text(hmi.soc, busy_line);
        trprintf("unlock failed(busy)from %s\n", hmi.remote);
        return;
    }
    hmi.locked = 0;
    reply_over(hmi.soc, 0, 0);
    trprintf("unlock succeed from %s\n", hmi.remote);
}

void release_operator_lock() {
    last_locked_hmi = nullptr;
    pthread_mutex_unlock(&hmi_mutex);
}
