#include "internal/show_command.h"

#include "comm/address_restriction.h"
#include "comm/reply.h"
#include "internal/operator_lock.h"
#include "util/clock.h"

#include <cstring>

namespace {

constexpr char show_usage[] =
    "Usage: show command\r\n"
    " allowed_ip  ... show \"allowed_ip_addres\" setting\r\n"
    " ip          ... show connection\r\n";

void show_allowed_addresses(int soc) {
    reply_text(soc, "### allowed IP addresses ###\r\n");
    for (int i = 0; i < allowed_max; ++i) {
        const allowed_address& allowed = st->allowed_ip_address[i];
        if (allowed.addr != 0) {
            address_text text;
            reply(soc, "%d addr=%s mask=%08x\r\n", i + 1, format_address(allowed.addr, text), allowed.mask);
        }
    }
}

void show_connections(int soc) {
    for (int i = 0; i < hmi_max; ++i) {
        const hmistruc& entry = st->hmi[i];
        const hmi_snapshot seen = hmistruc_snapshot(entry);
        if (seen.flag == 0) {
            continue;
        }
        char date[date_size];
        reply(soc, "ip=%s user=%s login=%s %s\r\n", seen.remote, seen.user, date_text(local_time(entry.login), date),
              last_locked_hmi == &entry ? "locked=1" : "");
    }
}

}  // namespace

void do_show(hmistruc& hmi, int argc, char* argv[]) {
    const char* what = argc > 1 ? argv[1] : "";
    if (std::strcmp(what, "allowed_ip") == 0) {
        show_allowed_addresses(hmi.soc);
    } else if (std::strcmp(what, "ip") == 0) {
        show_connections(hmi.soc);
    } else {
        reply_text(hmi.soc, show_usage);
    }
    reply_over(hmi.soc, 0, 0);
}
