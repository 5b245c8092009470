#include "internal/status_command.h"

#include "comm/line_reader.h"
#include "comm/reply.h"
#include "command/module_table.h"
#include "util/clock.h"

namespace {

struct status_row {
    const char* label;
    status_mark sched_status::*mark;
};

constexpr status_row rows[] = {
    {"error", &sched_status::error}, {"prevent", &sched_status::prevent}, {"diag", &sched_status::diag},
    {"conf", &sched_status::conf},   {"patrol", &sched_status::patrol},   {"snap", &sched_status::snap},
    {"korvo", &sched_status::korvo}, {"padiag", &sched_status::padiag},
};

void write_row(int soc, const char* label, const status_mark& mark) {
    char date[iso_size];
    date2iso8601(mark.stamp.time, date);
    reply(soc, "%-9s %s\r\n", label, date);
}

// A client that has sent quit behind this status never looks into its ring again. A message that came for it between
// the two would be lost.
next_look look_after(const hmistruc& hmi) {
    const bool quits = hmi.lines != nullptr && hmi.lines->is_next_line("quit") && is_internal("quit") != 0;
    return quits ? next_look::never : next_look::follows;
}

void write_messages(hmistruc& hmi) {
    const next_look next = look_after(hmi);
    char text[message_size];
    char date[iso_size];
    std::uint32_t qtime = 0;
    while (hmistruc_dequeue(hmi, text, qtime, next) == 0) {
        date2iso8601(qtime, date);
        reply(hmi.soc, "%s;%s\r\n", date, text);
    }
}

}  // namespace

void do_status(hmistruc& hmi, int /*argc*/, char** /*argv*/) {
    const gathered_answer answer(hmi.soc);
    write_row(hmi.soc, "confdate", st->confdate);
    for (const status_row& row : rows) {
        const status_mark& mark = st->*row.mark;
        if (mark.set != 0) {
            write_row(hmi.soc, row.label, mark);
        }
    }
    write_messages(hmi);
    if (const int lost = hmistruc_lostcount(hmi); lost != 0) {
        reply(hmi.soc, "W0100: message queue overflow, %d messages were lost.\r\n", lost);
    }
    reply_over(hmi.soc, 0, 0);
    hmi.last_status = static_cast<std::uint32_t>(now_seconds());
}
