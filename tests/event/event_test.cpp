#include "command/module_table.h"
#include "event/event_pipe.h"
#include "event/syslog_switch.h"
#include "event/syslog_watcher.h"
#include "server/connection.h"
#include "state/mark_question.h"
#include "timer/timer_loop.h"
#include "unit_support.h"

namespace unit {

struct Event : Scratch {};

TEST_F(Event, ForwardingIsOnExactlyWhenASectionOf0To99SaysYes) {
    const Row<const char*, int> cases[] = {
        {"highest section", "[section 99]\nactive = yes\n", 1},
        {"section too high", "[section 100]\nactive = yes\n", 0},
        {"other letter case", "[section 1]\nactive = Yes", 0},
        {"empty file", "", 0},
        {"blank at the end", "[section 0]\nactive = yes \n", 0},
        {"second section", "[section 0]\nactive = no\n[section 5]\nactive = yes", 1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        write("config/pvo.ini", row.given);
        EXPECT_EQ(syslog_enable_check(), 0);
        EXPECT_EQ(qmx_syslog_is_enable, row.wanted);
    }
    for (const char* command : {"qmx\tsyslog\tenable", "qmx\tsyslog\tdisable\tx"}) {  // both look at the file again
        qmx_syslog_is_enable = 0;
        do_cont_command(command);
        EXPECT_EQ(qmx_syslog_is_enable, 1) << command;
    }
    fs::remove(path("config/pvo.ini"));
    fs::create_symlink("/proc/self/mem", path("config/pvo.ini"));  // opens, but each read fails
    EXPECT_FALSE(update_forwarding_switch());
    EXPECT_EQ(qmx_syslog_is_enable, 1);
}

TEST_F(Event, SystemLogIsForwardedWhenItHasChangedOrSomethingIsUnsent) {
    write("config/vgd_modules", "qmx qmx - 9\n");
    ASSERT_EQ(read_modules(), 0);
    program("qmx", "echo $* >>$D/log/calls; . $D/log/do");
    const std::string log = path("log/log");
    const std::string set_up =
        "cd log; O=../data/qmx_syslog_offset; S() { stat -c '%i %s' log; }; rm -f sched_log; : >calls; ";
    qmx_syslog_is_enable = 1;
    syslog_seen seen;
    const std::string changed = "event:" + log + " size changed.";
    const std::string unreadable = "read_offsetfile() f";
    // The steps follow one another: each changes files and polls once.
    const struct {
        const char* name;
        const char* change;
        int runs;  // of the module
        testing::Matcher<std::string> trace;
    } steps[] = {
        {"no log", "echo >do", 0, "event:Error:failed to stat " + log + ", errno=2\n"},
        {"new log", ": >log", 1, StartsWith(changed + "(0:0 ")},
        {"no offset file", ":", 0, StartsWith(unreadable + "open error, errno=2")},
        {"one number in the offset file", "echo 12 >$O", 0, StartsWith(unreadable + "scanf error")},
        {"all is sent", "S >$O", 0, ""},
        {"offset of another log", "echo 1 4 >$O", 1, StartsWith("unsent event exists.(1:4 -> ")},
        {"the same again", ":", 1, StartsWith("unsent event exists.(1:4")},
        {"log has grown, forwarding fails", "echo exit 2 >do; echo two >>log", 1, StartsWith(changed)},
        {"failed before", "S >$O", 1, StartsWith("command1:")},
        {"succeeds", "echo >do", 1, StartsWith("command1:")},
        {"nothing new", ":", 0, ""},
        {"last byte unsent", "echo $(stat -c %i log) 3 >$O", 1, StartsWith("unsent event exists.(")},
        {"log replaced by its copy", "cp log new; mv new log", 1, StartsWith("event:" + log)},
        {"all is sent again", "S >$O", 0, ""},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        shell(set_up + step.change);
        syslog_poll(log.c_str(), seen);
        EXPECT_EQ(std::atoi(shell("wc -l <log/calls").c_str()), step.runs);
        EXPECT_THAT(trace(), step.trace);
    }
    qmx_syslog_is_enable = 0;
    write("log/log", "grown while it was off");
    syslog_poll(log.c_str(), seen);
    EXPECT_EQ(trace(), "");
}

// A module that finds no fault clears the mark, unless a report has come since the module was started.
TEST_F(Event, ReportDuringTheRunKeepsTheMark) {
    const auto five_minute_check = [] {
        timer_state state{0, {}};
        timer_pass(state, 300);
    };
    struct {
        const char* name;
        status_mark sched_status::*mark;
        void (*ask)();
        bool stamps = false;  // the mark's date is that of the answer
    } const questions[] = {
        {"five-minute check of conf", &sched_status::conf, five_minute_check},
        {"five-minute check of diag", &sched_status::diag, five_minute_check},
        {"message code 08", &sched_status::diag, [] { do_eventmsg("E0108:x"); }},
        {"message code 11", &sched_status::error, [] { do_eventmsg("E0111:x"); }},
        {"parts clear", &sched_status::error, [] { do_cont_command("parts\tclear"); }, true},
        {"prognosis prevdel", &sched_status::prevent, [] { do_cont_command("prognosis\tprevdel"); }, true},
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
            mark.stamp.ticks = 0;
            in_threads(2, [&](int thread) {
                if (thread == 0) return question.ask();
                await("a run of the module", [&] { return fs::exists(path("asked")); });
                if (reported) set_and_stamp(mark);
                fs::remove(path("asked"));
            });
            ASSERT_EQ(mark.set, reported ? 1 : 0) << question.name;
            EXPECT_EQ(mark.stamp.ticks != 0, reported || question.stamps) << question.name;
            mark.set = 0;
        }
    }
}

// Of two questions the one that was asked later decides, however the threads that ask are scheduled.
TEST_F(Event, AnswersTakeEffectInTheOrderOfTheRuns) {
    write("config/vgd_modules", "parts m - 9\n");
    ASSERT_EQ(read_modules(), 0);
    program("m", "[ ! -e $D/first ] || exit 0; : >$D/first; sleep .02; exit 2");
    for (int round = 0; round < 50; ++round) {
        in_threads(2, [&](int thread) {
            if (thread == 1) await("the first run", [&] { return fs::exists(path("first")); });
            do_eventmsg("E0111:x");
        });
        ASSERT_EQ(st->error.set, 0) << "in round " << round;
        fs::remove(path("first"));
    }
}

}  // namespace unit
