#include "timer/timer_loop.h"

#include "command/dispatch.h"
#include "event/syslog_switch.h"
#include "process/vgd_end.h"
#include "state/mark_question.h"
#include "state/sched_status.h"
#include "timer/job_table.h"
#include "timer/uptime.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/interval_sleep.h"
#include "util/mutex.h"

#include <cerrno>
#include <string_view>
#include <sys/stat.h>

namespace {

constexpr std::time_t minute = 60;
constexpr std::time_t check_period = 300;  // seconds between two checks of raised conditions

// Makes searching the table and storing the result one step. Otherwise start-up could store a result from before a
// reload, and nothing would correct it.
constinit posix_mutex availability_lock;

void update_availability(status_mark& mark, const char* name) {
    const mutex_guard guard(availability_lock);
    const int available = is_available_on_timer(name);
    if (available == mark.set) {
        return;
    }
    trprintf("timer:%s is changed to be %s\n", name, available != 0 ? "enabled" : "disabled");
    mark.set = static_cast<std::uint8_t>(available);
    get_tick(mark.stamp);
}

void reload_jobs_if_changed() {
    struct stat info {};
    if (stat(st->timer_jobs_path, &info) != 0 || identity_of(info) == jobs_identity()) {
        return;
    }
    timer_read_jobs();
    update_availability(st->patrol, "patrol");
    update_availability(st->padiag, "padiag");
}

// Without the event pipe the scheduler gets no more messages. A missing pipe means that the suite was stopped.
void end_if_pipe_is_gone() {
    struct stat info {};
    if (stat(st->pipe_path, &info) != 0 && errno == ENOENT) {
        trprintf("Warning: vgd_pipe is not exist. errno=%d\n", errno);
        run_vgd_end();
    }
}

void recheck(status_mark& mark, const char* name, const char* command) {
    if (mark.set == 0) {
        return;
    }
    mark_question question(mark, answer_effect::success_clears);
    do_command_with_buffer(command, nullptr, 0, &question);
    if (question.has_cleared()) {
        trprintf("Warning:%s 0 status is cleared by patrol.\n", name);
    }
}

void recheck_conditions(timer_state& state, std::time_t t) {
    if (t < state.last_check) {
        state.last_check = t;  // the clock was set back: count the period from now
    }
    if (t - state.last_check < check_period) {
        return;
    }
    recheck(st->conf, "conf", "devconf\tstatus");
    recheck(st->diag, "diag", "diag\tstatus");
    state.last_check = t;
}

// A changed file that cannot be read is tried again in each pass: making it readable does not change what identity_of
// compares.
void check_forwarding_switch(timer_state& state) {
    struct stat info {};
    if (st->pvo_ini_path[0] == '\0' || stat(st->pvo_ini_path, &info) != 0) {
        return;
    }
    const auto trace_change = [&info] {
        trprintf("timer:pvo.ini is changed. mtime=%u\n", static_cast<unsigned>(info.st_mtime));
    };
    const bool is_changed = identity_of(info) != state.pvo_ini;
    if (!is_changed && !state.is_pvo_ini_unread) {
        return;
    }
    if (is_changed) {
        trace_change();
    }
    const bool was_read = update_forwarding_switch();
    if (was_read && !is_changed) {
        trace_change();
    }
    state.pvo_ini = identity_of(info);
    state.is_pvo_ini_unread = !was_read;
}

}  // namespace

void mark_if_on_timer(status_mark& mark, const char* name) {
    const mutex_guard guard(availability_lock);
    if (is_available_on_timer(name) != 0) {
        set_and_stamp(mark);
    }
}

void timer_execute(std::time_t t) {
    const std::tm now = local_time(t);
    job_table table;
    copy_jobs(table);
    for (int i = 0; i < table.jmax; ++i) {
        const job_record& record = table.job[i];
        if (!is_job_due(record, now)) {
            continue;
        }
        trprintf("timer:run command:job=%d,\"%s\" for %u\n", i, record.command, static_cast<unsigned>(t));
        do_command(nullptr, record.command, i + 1);
        if (std::string_view(record.command).starts_with("patrol\t")) {
            set_and_stamp(st->patrol);
        }
    }
}

void timer_pass(timer_state& state, std::time_t t) {
    reload_jobs_if_changed();
    timer_execute(t);
    end_if_pipe_is_gone();
    server_uptime_logging();
    recheck_conditions(state, t);
    check_forwarding_switch(state);
}

void timer_main() {
    timer_state state{now_seconds(), {}};
    server_uptime_init();
    timer_read_jobs();
    interval_sleep full_minute(minute);
    for (;;) {
        timer_pass(state, full_minute.next());
    }
}
