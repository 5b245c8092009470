#include "internal/debug_command.h"

#include "comm/reply.h"
#include "timer/job_listing.h"
#include "util/clock.h"
#include "util/text.h"

#include <cstring>

namespace {

constexpr char debug_usage[] =
    "Uage: debug TAB command TAB arg\r\n"
    " timer    ... display timer jobs.\r\n"
    " hmi      ... display HMI structure\r\n"
    " hmi all  ... display HMI structure\r\n";
static_assert(sizeof debug_usage - 1 == 142, "HMIs know this text, its first word included");

const char* stamp(std::uint32_t when) {
    const std::tm time = local_time(when);
    return time2string(&time);
}

void show_queue(int soc, const hmistruc& entry, const hmi_snapshot& seen) {
    char text[message_size];
    std::uint32_t qtime = 0;
    for (int slot = seen.out; slot != seen.in; slot = next_slot(slot)) {
        hmistruc_peek(entry, slot, text, qtime);
        reply(soc, "q#%d:SB:\"%s\"\r\n", slot, text);
        reply(soc, "   (%s)\r\n", stamp(qtime));
    }
}

void show_entry(int soc, const hmistruc& entry, const hmi_snapshot& seen) {
    reply_text(soc, "--------------------------------\r\n");
    reply(soc, "remote:%s (tid=%d) user=\"%s\" login=%s\r\n", seen.remote, static_cast<int>(entry.tid.get()), seen.user,
          stamp(entry.login));
    reply(soc, "in=%d out=%d lost=%d last_status=%s\r\n", seen.in, seen.out, seen.lost, stamp(entry.last_status));
    reply(soc, "ipset=\"%s\" resource_fd=%d\r\n", seen.ipset, entry.resource_fd.get());
}

}  // namespace

const char* time2string(const std::tm* time) {
    thread_local char text[date_size];
    text[0] = '\0';
    return time != nullptr ? date_text(*time, text) : text;
}

void show_hmi_info(int soc, const char* argument) {
    const bool full = argument != nullptr && std::strcmp(argument, "all") == 0;
    for (int i = 0; i < hmi_max; ++i) {
        const hmistruc& entry = st->hmi[i];
        const hmi_snapshot seen = hmistruc_snapshot(entry);
        if (full) {
            reply(soc, "hmi#%d flag=%d\r\n", i, seen.flag);
        }
        if (seen.flag == 0) {
            continue;
        }
        show_entry(soc, entry, seen);
        if (full) {
            show_queue(soc, entry, seen);
        }
    }
}

void do_debug(hmistruc& hmi, int argc, char* argv[]) {
    const char* what = argc > 1 ? argv[1] : "";
    if (std::strcmp(what, "timer") == 0) {
        show_timer_jobs(hmi.soc);
    } else if (std::strcmp(what, "hmi") == 0) {
        show_hmi_info(hmi.soc, argv[2]);
    } else {
        reply_text(hmi.soc, debug_usage);
    }
    reply_over(hmi.soc, 0, 0);
}
