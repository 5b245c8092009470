#include "event/event_effects.h"

#include "command/dispatch.h"
#include "state/mark_question.h"
#include "state/sched_status.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/line.h"

#include <string_view>

namespace {

constexpr int answer_size = 1000;  // bytes of a module's answer that are read

// Reported again; keep the original time stamp.
void confirm(status_mark& mark) { mark.set = 1; }

void clear(status_mark& mark) { mark.set = 0; }

void recheck_diag(status_mark& mark) {
    mark_question question(mark, answer_effect::success_clears);
    do_command(nullptr, "diag\tstatus", 0, &question);
}

void recheck_parts(status_mark& mark) {
    mark_question question(mark, answer_effect::condition_sets_and_others_clear);
    do_command_with_buffer("parts\tstatus", nullptr, 0, &question);
}

// The configuration was read again: gets its date from the module, and runs "confchg" when the date differs.
void update_confdate(status_mark& mark) {
    char answer[answer_size + 1] = "";  // the runner writes no NUL
    if (do_command_with_buffer("devconf\tdate", answer, answer_size) == 0) {
        chomp(answer);
        trprintf("devconf date => %s\n", answer);
        const std::time_t date = iso2date(answer);
        if (date != mark.stamp.time) {
            do_command_with_buffer("confchg", answer, answer_size);
        }
        mark.set = 1;
        mark.stamp.time = date;
    }
    st->conf.set = 0;
    do_command(nullptr, "analysis\terror", 0);
}

struct event_effect {
    std::string_view digits;  // third and fourth digit of the code
    status_mark sched_status::*mark;
    void (*apply)(status_mark& mark);
    event_audience audience = event_audience::hmis;
};

// Codes that are not listed change nothing and go to the HMIs.
constexpr event_effect effects[] = {
    {"01", &sched_status::error, set_and_stamp},
    {"02", &sched_status::error, set_and_stamp},
    {"03", &sched_status::prevent, set_and_stamp},
    {"04", &sched_status::conf, set_and_stamp},
    {"05", &sched_status::confdate, update_confdate},
    {"06", &sched_status::confdate, set_and_stamp},
    {"07", &sched_status::diag, set_and_stamp},
    {"08", &sched_status::diag, recheck_diag},
    {"11", &sched_status::error, recheck_parts, event_audience::nobody},
    {"12", &sched_status::confdate, set_and_stamp},
    {"14", &sched_status::snap, set_and_stamp},
    {"15", &sched_status::snap, clear},
    {"17", &sched_status::korvo, set_and_stamp},
    {"18", &sched_status::korvo, confirm},
};

}  // namespace

event_audience apply_event_effect(const char* text) {
    const std::string_view digits(text + 3, 2);
    for (const event_effect& effect : effects) {
        if (effect.digits == digits) {
            effect.apply(st->*effect.mark);
            return effect.audience;
        }
    }
    return event_audience::hmis;
}
