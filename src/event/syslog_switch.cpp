#include "event/syslog_switch.h"

#include "command/dispatch.h"
#include "state/sched_status.h"
#include "util/ini_file.h"
#include "util/mutex.h"
#include "util/regular_file.h"
#include "util/text.h"

#include <cerrno>
#include <cstring>

relaxed<int> qmx_syslog_is_enable;
relaxed<int> qmx_syslog_required_retry;

namespace {

constexpr int section_max = 100;

bool is_any_section_active() {
    for (int n = 0; n < section_max; ++n) {
        char section[32];
        format_text(section, "[section %d]", n);
        const char* value = read_ini_file("pvo.ini", section, "active");
        if (value != nullptr && std::strcmp(value, "yes") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

bool update_forwarding_switch() {
    // Makes reading and storing one step. Otherwise a caller that read the old file could store its result last.
    static constinit posix_mutex checking;
    const mutex_guard guard(checking);
    if (open_regular_for_reading(st->pvo_ini_path) == nullptr && errno != ENOENT) {
        return false;
    }
    qmx_syslog_is_enable = is_any_section_active() ? 1 : 0;
    return true;
}

int syslog_enable_check() {
    update_forwarding_switch();
    return 0;
}

int event_hard_error() {
    const int status = do_command(nullptr, "qmx\tsyslog\tforwarding", 0);
    if (status == condition_status) {
        qmx_syslog_required_retry = 1;
    }
    return status;
}
