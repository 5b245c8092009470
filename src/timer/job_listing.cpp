#include "timer/job_listing.h"

#include "comm/reply.h"
#include "timer/job_table.h"

namespace {

constexpr int ruler_digits = 63;

void show_ruler(int soc) {
    char digits[ruler_digits + 1] = {};
    for (int i = 0; i < ruler_digits; ++i) {
        digits[i] = static_cast<char>('0' + i % 10);
    }
    reply(soc, "       %s\r\n", digits);
}

template <int N>
void show_slots(int soc, const char* label, const std::uint8_t (&slots)[N]) {
    char digits[N + 1] = {};
    for (int i = 0; i < N; ++i) {
        digits[i] = slots[i] != 0 ? '1' : '0';
    }
    reply(soc, "%s%s\r\n", label, digits);
}

}  // namespace

void show_timer_jobs(int soc) {
    job_table table;
    copy_jobs(table);
    reply(soc, "Timer Jobs (jmax=%d)\r\n", table.jmax);
    show_ruler(soc);
    for (int i = 0; i < table.jmax; ++i) {
        const job_record& record = table.job[i];
        reply(soc, "job#%d \"%s\"\r\n", i, record.command);
        show_slots(soc, "wday  =", record.wday);
        show_slots(soc, "month =", record.month);
        show_slots(soc, "mday  =", record.mday);
        show_slots(soc, "hour  =", record.hour);
        show_slots(soc, "minute=", record.minute);
    }
}
