#include "comm/connection.h"
#include "command/module_table.h"
#include "event/event_pipe.h"
#include "event/syslog_switch.h"
#include "event/syslog_watcher.h"
#include "timer/timer_loop.h"
#include "unit_support.h"
#include "util/mark_question.h"

namespace unit {

struct Event : Scratch {};

TEST_F(Event, ForwardingSwitch) {
    for (const auto& [ini, expected] :
         rows("[section 99]\na%yes\n -> 1|[section 100]\na%yes\n -> 0|[section 1]\na%Yes -> 0| -> 0|"
              "[section 0]\na%yes \n -> 0|[section 0]\na%no\n[section 5]\na%yes -> 1",
              "ctive = ")) {
        write("config/pvo.ini", ini);
        EXPECT_EQ(syslog_enable_check(), 0);
        EXPECT_EQ(std::to_string(qmx_syslog_is_enable), expected) << ini;
    }
}

TEST_F(Event, SystemLogPolls) {
    write("config/vgd_modules", "qmx qmx - 9\n");
    ASSERT_EQ(read_modules(), 0);
    program("qmx", "echo $* >>$D/log/calls; . $D/log/do");
    const std::string log = path("log/log");
    const std::string set_up =
        "cd log; O=../data/qmx_syslog_offset; S() { stat -c '%i %s' log; }; rm -f sched_log; : >calls; ";
    qmx_syslog_is_enable = 1;
    syslog_seen seen;
    // A change, then how often a poll forwards and how its trace begins; a full stop stands behind the trace.
    for (const auto& [change, expected] :
         rows("echo >do -> 0 event:Error:failed to stat %, errno=2\n.|: >log -> 1 event:% size changed.(0:0 |"
              ": -> 0 read_offsetfile() fopen error, errno=2|mkfifo $O -> 0 read_offsetfile() fopen error, errno=6|"
              "rm $O; echo 12 >$O -> 0 read_offsetfile() fscanf error|"
              "S >$O -> 0 .|echo 1 4 >$O -> 1 unsent event exists.(1:4 -> |: -> 1 unsent event exists.(1:4|"
              "echo exit 2 >do; echo two >>log -> 1 event:% size changed.|S >$O -> 1 command1:|"
              "echo >do -> 1 command1:|: -> 0 .|cp log new; mv new log -> 1 event:%|S >$O -> 0 .",
              log)) {
        shell(set_up + change);
        syslog_poll(log.c_str(), seen);
        const std::string runs = shell("wc -l <log/calls").substr(0, 1);
        EXPECT_THAT(runs + " " + trace() + ".", StartsWith(expected)) << change;
    }
    qmx_syslog_is_enable = 0;
    write("log/log", "grown while it was off");
    syslog_poll(log.c_str(), seen);
    EXPECT_EQ(trace(), "");
}

// A module that says "over" clears the mark, unless a report has come since the module was started.
TEST_F(Event, ReportDuringTheRunKeepsTheMark) {
    struct {
        const char* name;
        status_mark sched_status::*mark;
        void (*ask)();
    } const questions[] = {
        {"five-minute check of conf", &sched_status::conf,
         [] {
             timer_state state{0, {}};
             timer_pass(state, 300);
         }},
        {"five-minute check of diag", &sched_status::diag,
         [] {
             timer_state state{0, {}};
             timer_pass(state, 300);
         }},
        {"message code 08", &sched_status::diag, [] { do_eventmsg("E0108:x"); }},
        {"message code 11", &sched_status::error, [] { do_eventmsg("E0111:x"); }},
        {"parts clear", &sched_status::error, [] { do_cont_command("parts\tclear"); }},
        {"prognosis prevdel", &sched_status::prevent, [] { do_cont_command("prognosis\tprevdel"); }},
    };
    setenv("VGD_PLATFORM", "KT", 1);
    write("config/vgd_modules", "devconf m - 9\ndiag m - 9\nparts m - 9\n");
    ASSERT_EQ(read_modules(), 0);
    program("m", ": >$D/asked; while [ -e $D/asked ]; do sleep .01; done");
    write("pipe", "");
    for (const auto& question : questions) {
        for (const bool reported : {true, false}) {
            status_mark& mark = st->*question.mark;
            mark.set = 1;
            in_threads(2, [&](int thread) {
                if (thread == 0) return question.ask();
                while (!fs::exists(path("asked"))) usleep(1'000);
                if (reported) set_and_stamp(mark);
                fs::remove(path("asked"));
            });
            EXPECT_EQ(mark.set, reported ? 1 : 0) << question.name;
            mark.set = 0;
        }
    }
}

}  // namespace unit
