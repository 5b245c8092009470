#include "event/syslog_watcher.h"

#include "event/syslog_switch.h"
#include "state/sched_status.h"
#include "trace/trace.h"
#include "util/interval_sleep.h"
#include "util/regular_file.h"

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>

namespace {

constexpr char system_log_path[] = "/var/log/messages";

// Reads the position of the forwarding module in the log. Returns false, after a trace line, when the file has none.
bool read_offsetfile(long long& inode, long long& offset) {
    const unique_file file = open_regular_for_reading(st->qmx_syslog_offset_path);
    if (file == nullptr) {
        trprintf("read_offsetfile() fopen error, errno=%d\n", errno);
        return false;
    }
    errno = 0;
    if (std::fscanf(file.get(), "%lld %lld", &inode, &offset) != 2) {
        trprintf("read_offsetfile() fscanf error, errno=%d\n", errno);
        return false;
    }
    return true;
}

void forward_what_is_unsent(const struct stat& log) {
    long long inode = 0;
    long long offset = 0;
    if (!read_offsetfile(inode, offset)) {
        return;
    }
    if (static_cast<ino_t>(inode) == log.st_ino && offset == log.st_size) {
        return;
    }
    trprintf("unsent event exists.(%d:%u -> %d:%u)\n", static_cast<int>(inode), static_cast<unsigned>(offset),
             static_cast<int>(log.st_ino), static_cast<unsigned>(log.st_size));
    event_hard_error();
}

}  // namespace

void syslog_poll(const char* path, syslog_seen& seen) {
    if (qmx_syslog_is_enable == 0) {
        return;
    }
    struct stat log {};
    if (stat(path, &log) != 0) {
        trprintf("event:Error:failed to stat %s, errno=%d\n", path, errno);
        return;
    }
    if (qmx_syslog_required_retry.exchange(0) != 0) {
        event_hard_error();
    } else if (log.st_size != seen.size || log.st_ino != seen.inode) {
        trprintf("event:%s size changed.(%d:%u -> %d:%u)\n", path, static_cast<int>(seen.inode),
                 static_cast<unsigned>(seen.size), static_cast<int>(log.st_ino), static_cast<unsigned>(log.st_size));
        event_hard_error();
    } else {
        forward_what_is_unsent(log);
    }
    seen = {log.st_size, log.st_ino};
}

void event_main_syslog() {
    syslog_seen seen;
    interval_sleep poll(st->syslog_poll_interval);
    for (;;) {
        poll.next();
        syslog_poll(system_log_path, seen);
    }
}
