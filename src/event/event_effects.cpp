#include "event/event_effects.h"

#include "command/dispatch.h"
#include "sched/sched_status.h"
#include "trace/trace.h"
#include "util/clock.h"
#include "util/line.h"
#include "util/mark_question.h"

#include <string_view>

namespace {

constexpr int answer_size = 1000;  // bytes of a module's answer that are looked at

void raise_error() {
    set_and_stamp(st->error);
}
void raise_prevent() {
    set_and_stamp(st->prevent);
}
void raise_conf() {
    set_and_stamp(st->conf);
}
void raise_confdate() {
    set_and_stamp(st->confdate);
}
void raise_diag() {
    set_and_stamp(st->diag);
}
void raise_snap() {
    set_and_stamp(st->snap);
}
void clear_snap() {
    st->snap.set = 0;
}
void raise_korvo() {
    set_and_stamp(st->korvo);
}

// Seen again, but since when it has been so stays as it was.
void confirm_korvo() {
    st->korvo.set = 1;
}

void recheck_diag() {
    mark_question question(st->diag);
    if (do_command(nullptr, "diag\tstatus", 0, &question) == 0) {
        question.clear_mark();
    }
}

void recheck_parts() {
    char answer[answer_size];
    mark_question question(st->error);
    if (do_command_with_buffer("parts\tstatus", answer, answer_size, &question) == condition_status) {
        set_and_stamp(st->error);
    } else {
        question.clear_mark();
    }
}

// The configuration has been read anew: take its date from the module, and tell the suite when it is another one.
void update_confdate() {
    char answer[answer_size + 1] = "";  // the runner writes no NUL
    if (do_command_with_buffer("devconf\tdate", answer, answer_size) == 0) {
        chomp(answer);
        trprintf("devconf date => %s\n", answer);
        const std::time_t date = iso2date(answer);
        if (date != st->confdate.stamp.time) {
            do_command_with_buffer("confchg", answer, answer_size);
        }
        st->confdate.set = 1;
        st->confdate.stamp.time = date;
    }
    st->conf.set = 0;
    do_command(nullptr, "analysis\terror", 0);
}

struct event_effect {
    std::string_view digits;  // third and fourth digit of the code
    void (*apply)();
    event_audience audience;
};

// Codes that are not listed change nothing and go to the HMIs.
constexpr event_effect effects[] = {
    {"01", raise_error, event_audience::hmis},     {"02", raise_error, event_audience::hmis},
    {"03", raise_prevent, event_audience::hmis},   {"04", raise_conf, event_audience::hmis},
    {"05", update_confdate, event_audience::hmis}, {"06", raise_confdate, event_audience::hmis},
    {"07", raise_diag, event_audience::hmis},      {"08", recheck_diag, event_audience::hmis},
    {"11", recheck_parts, event_audience::nobody}, {"12", raise_confdate, event_audience::hmis},
    {"14", raise_snap, event_audience::hmis},      {"15", clear_snap, event_audience::hmis},
    {"17", raise_korvo, event_audience::hmis},     {"18", confirm_korvo, event_audience::hmis},
};

}  // namespace

event_audience apply_event_effect(const char* text) {
    const std::string_view digits(text + 3, 2);
    for (const event_effect& effect : effects) {
        if (effect.digits == digits) {
            effect.apply();
            return effect.audience;
        }
    }
    return event_audience::hmis;
}
