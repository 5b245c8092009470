#include "event/syslog_switch.h"

#include "command/dispatch.h"
#include "state/sched_status.h"
#include "util/ini_file.h"
#include "util/mutex.h"
#include "util/regular_file.h"
#include "util/text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

relaxed<int> qmx_syslog_is_enable;
relaxed<int> qmx_syslog_required_retry;

namespace {

constexpr int section_max = 100;

// Returns nothing when the file cannot be read. A missing file has no active section.
std::optional<bool> is_any_section_active() {
    // Opened once for all sections: if a later open failed, the file would count as read, without an active section.
    const unique_file file = open_regular_for_reading(st->pvo_ini_path);
    if (file == nullptr) {
        return errno == ENOENT ? std::optional(false) : std::nullopt;
    }
    for (int n = 0; n < section_max; ++n) {
        char section[32];
        format_text(section, "[section %d]", n);
        const char* value = read_ini_stream(file.get(), section, "active");
        if (value != nullptr && std::strcmp(value, "yes") == 0) {
            return true;
        }
        if (std::ferror(file.get()) != 0) {
            return std::nullopt;
        }
    }
    return false;
}

}  // namespace

bool update_forwarding_switch() {
    // Makes reading and storing one step. Otherwise a caller that read the old file could store its result last.
    static constinit posix_mutex checking;
    const mutex_guard guard(checking);
    const std::optional<bool> is_active = is_any_section_active();
    if (is_active.has_value()) {
        qmx_syslog_is_enable = *is_active ? 1 : 0;
    }
    return is_active.has_value();
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
