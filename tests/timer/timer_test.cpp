#include "command/module_table.h"
#include "event/syslog_switch.h"
#include "timer/job_field.h"
#include "timer/job_table.h"
#include "timer/timer_loop.h"
#include "timer/uptime.h"
#include "unit_support.h"

#include <optional>

namespace unit {

// The numbers of the slots that are set.
template <std::size_t N>
std::vector<std::size_t> numbers(const std::uint8_t (&slots)[N]) {
    std::vector<std::size_t> set;
    for (std::size_t i = 0; i < N; ++i)
        if (slots[i] != 0) set.push_back(i);
    return set;
}

struct Timer : Scratch {
    job_table table{};
    int load(const std::string& jobs) {
        write("config/timer_jobs", jobs);
        timer_read_jobs();
        copy_jobs(table);
        return table.jmax;
    }
};

TEST_F(Timer, FieldSetsItsSlotsAndStopsAtABadItem) {
    const struct {
        const char* name;
        const char* field;  // of 24 slots
        std::vector<std::size_t> set;
        std::string trace;  // after "Error:timer:"
    } cases[] = {
        {"ends at a blank", "5 x", {5}, ""},
        {"ends at a tab", "*/10\t7", {0, 10, 20}, ""},
        {"ends at LF", "5\n,7", {5}, ""},
        {"ends at VT", "5\v,7", {5}, ""},
        {"ends at FF", "5\f,7", {5}, ""},
        {"ends at CR", "5\r,7", {5}, ""},
        {"star reaches the highest value", "*/23", {0, 23}, ""},
        {"step after one value", "5/2", {5}, ""},
        {"range with a step", "1-9/4", {1, 5, 9}, ""},
        {"second step", "1-5/2/3", {1, 3, 5}, ""},
        {"empty items", ",3,,1,", {1, 3}, ""},
        {"only empty items", ",,", {}, ""},
        {"empty field", "", {}, ""},
        {"range of one", "7-7", {7}, ""},
        {"range backwards", "5-3", {}, ""},
        {"no number", "x", {0}, ""},
        {"step without a value", "/2", {0}, ""},
        {"range without an end", "1-", {}, ""},
        {"range to text", "3-x", {}, ""},
        {"leading zeros", "007", {7}, ""},
        {"plus sign", "+4", {4}, ""},
        {"second range", "1-3-9", {1, 2, 3}, ""},
        {"range after a star", "*-3/11", {0, 11, 22}, ""},
        {"highest value", "23", {23}, ""},
        {"step beyond an int", "0-23/99999999999", {0}, ""},
        {"range to the highest value", "20-23", {20, 21, 22, 23}, ""},
        {"range to a negative value", "3--1", {}, ""},
        {"step 0", "*/0", {}, "invalid step\n"},
        {"step 0 in a list", "1,*/0,2", {1}, "invalid step\n"},
        {"negative step", "1-5/-1", {}, "invalid step\n"},
        {"step 0 after one value", "5/0", {}, "invalid step\n"},
        {"value too large", "5,99,7", {5, 7}, "too large (99 > 24)\n"},
        {"value one too large", "24", {}, "too large (24 > 24)\n"},
        {"range too large", "1,20-24,2", {1}, "too large (20 - 24 > 24)\n"},
        {"value beyond an int", "99999999999", {}, "too large (2147483647 > 24)\n"},
        {"negative value", "3,-5,4", {3}, "negative value \"-5\"\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name + std::string(": ") + c.field);
        std::uint8_t slots[24] = {};
        set_job_field(c.field, slots, 24);
        EXPECT_EQ(numbers(slots), c.set);
        EXPECT_EQ(trace(), c.trace.empty() ? "" : "Error:timer:" + c.trace);
    }
}

TEST_F(Timer, BadOrLongLineCostsOnlyItself) {
    load("7 7 7 7 3 good\n");
    const job_record good = table.job[0];
    const std::string longest(299, 'x');  // that a command can be
    const struct {
        const char* name;
        std::string line;                    // put before the good one
        std::optional<std::string> command;  // of its job
        bool is_short = false;
    } cases[] = {
        {"words of the command", "0 3 * * * diag\ts", "diag\ts"},
        {"several blanks", "0 3  *   * * a  b\tc ", "a  b\tc "},
        {"CR", "0 3 * * * x\r", "x\r"},
        {"comment", "#0 3 * * * x", {}},
        {"tab between fields", "0 3\t* * * x", {}, true},
        {"empty", "", {}, true},
        {"blanks", "   ", {}, true},
        {"no weekday", "0 3 * *", {}, true},
        {"no command", "0 3 * * *", {}, true},
        {"blank for a command", "0 3 * * * ", {}, true},
        {"CR for a command", "0 3 * * *\r", {}, true},
        {"blank in front", " 0 3 * * * x", "* x"},
        {"longest command", "0 3 * * * " + longest, longest},
        {"one character more", "0 3 * * * " + longest + "x", longest},
        {"twice as long", "0 3 * * * " + longest + longest, longest},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name + (": " + c.line));
        load(c.line + "\n7 7 7 7 3 good\n");
        EXPECT_EQ(trace().find("short line at line 1\n") != std::string::npos, c.is_short);
        ASSERT_EQ(table.jmax, c.command ? 2 : 1);
        EXPECT_EQ(c.command.value_or(good.command), table.job[0].command);
        EXPECT_EQ(std::memcmp(&table.job[table.jmax - 1], &good, sizeof good), 0);
    }
    load("#" + std::string(509, 'x') + "\n");
    EXPECT_THAT(trace(), Not(HasSubstr("short")));
    load("#" + std::string(510, 'x') + "\n");  // the rest is a line of its own
    EXPECT_THAT(trace(), HasSubstr("short line at line 2\n"));
}

TEST_F(Timer, TableIsFullAfterThirtyJobsAndEmptyWithoutItsFile) {
    std::string jobs;
    for (int i = 0; i < 29; ++i) jobs += "* * * * * job\n";
    EXPECT_EQ(load(jobs), 29);
    EXPECT_THAT(trace(), AllOf(HasSubstr("Info:timer_jobs mtime="), Not(HasSubstr("Warning:"))));
    EXPECT_EQ(load(jobs + "*/15 * * * * patrolx\n1 2 3 4 5 padiag\n"), 30);
    EXPECT_THAT(trace(), HasSubstr("Warning:timer:job table full, ignore remains\n"));
    EXPECT_STREQ(table.job[29].command, "patrolx");
    EXPECT_THAT(numbers(table.job[29].minute), testing::ElementsAre(0, 15, 30, 45, 60));
    EXPECT_EQ(is_available_on_timer("patrol"), 1);
    EXPECT_EQ(is_available_on_timer("padiag"), 0);
    fs::remove(path("config/timer_jobs"));
    timer_read_jobs();
    EXPECT_THAT(trace(), HasSubstr(path("config/timer_jobs") + " cannot open.(errno=2)\n"));
    EXPECT_EQ(is_available_on_timer("patrol"), 0);
}

// The due minutes of a leap year, without "*/s" in days and months, which starts from 1 in the other cron.
TEST_F(Timer, AgreesWithAnotherCronOnTheDueMinutes) {
    write("cron.py", R"(import croniter, random
random.seed(3)
choices = "0 59 7,30 */29", "0 23 5,6 */11", "* 1 29 1-10/3 28-31 5,15", "* 2 1,12 3-9/3 5 8", "* * 0 6 1-5 0-6/3 */2"
for i in range(100):
    field = " ".join(random.choice(texts.split()) for texts in choices)
    cron, total, digest = croniter.croniter(field, 1704067199), 0, 0
    while (due := (int(cron.get_next(float)) - 1704067200) // 60) < 366 * 1440:
        total, digest = total + 1, (digest * 31 + due) % 2**32
    print(total, digest, field, "x"))");
    const std::string expectations = shell("/usr/bin/python3 cron.py 2>&1");
    if (expectations.find("No module named") != std::string::npos) GTEST_SKIP() << "needs Debian's python3-croniter";
    std::istringstream lines(expectations);
    std::uint32_t expected_total = 0;
    std::uint32_t expected_digest = 0;
    for (std::string job; std::getline(lines >> expected_total >> expected_digest, job);) {
        EXPECT_EQ(load(job.substr(1) + "\n"), 1);
        std::uint32_t total = 0;
        std::uint32_t digest = 0;
        std::tm parts{};
        for (int due = 0; due < 366 * 1440; ++due) {
            const std::time_t when = 1704067200 + std::time_t{due} * 60;
            parts.tm_hour = due / 60 % 24;
            parts.tm_min = due % 60;
            if (is_job_due(table.job[0], due % 1440 == 0 ? *gmtime_r(&when, &parts) : parts)) {
                ++total;
                digest = digest * 31 + static_cast<std::uint32_t>(due);
            }
        }
        EXPECT_EQ(total, expected_total) << job;
        EXPECT_EQ(digest, expected_digest) << job;
    }
}

TEST_F(Timer, UptimeGoesOnFromItsFileAndFailuresAreTraced) {
    const Row<std::string, unsigned> cases[] = {
        {"number", "1440\n", 1440}, {"a byte too long", std::string(62, '0') + "12", 1}, {"text", "abc", 0}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        write("data/up_time", row.given);
        server_uptime_init();
        EXPECT_EQ(st->uptime, row.wanted);
        server_uptime_logging();
        EXPECT_EQ(read("data/up_time"), std::to_string(row.wanted + 1) + "\n");
        EXPECT_FALSE(fs::exists(path("data/up_time_start")));
    }
    fs::remove(path("data/up_time"));
    server_uptime_init();
    EXPECT_LE(now_seconds() - iso2date(read("data/up_time_start").c_str()), 60);
    fs::remove(path("data/up_time"));
    fs::create_symlink("/proc/self/oom_score_adj", path("data/up_time"));  // takes no number above 1000
    st->uptime = 1000;
    EXPECT_NE(trace(), "");
    server_uptime_logging();
    EXPECT_EQ(trace(), "Error: failed to write uptime " + path("data/up_time") + " errno=22\n");
    fs::remove_all(path("data"));
    server_uptime_init();
    server_uptime_logging();
    EXPECT_EQ(trace(), "Info:uptime open fails (path=" + path("data/up_time") + " errno=2)\n" +
                           "Error:failed to create uptime start file.(path=" + path("data/up_time_start") +
                           " errno=2)\nError: failed to fopen uptime " + path("data/up_time") + " errno=2\n");
}

TEST_F(Timer, PassChecksMarksEveryFiveMinutesAndSeesEachChangeOfAFile) {
    write("config/vgd_modules", "devconf m - 9\ndiag m - 9\npatrol m - 9\n");
    ASSERT_EQ(read_modules(), 0);
    program("m", "echo $1 >>$D/calls; . $D/react");
    write("pipe", "");
    qmx_syslog_is_enable = 0;
    timer_state state{1'000'000'000, {}};
    st->conf.set = st->diag.set = 1;
    // The steps follow one another: each changes files and makes one pass.
    const struct {
        const char* name;
        int seconds;  // after the start
        const char* change;
        const char* set;  // marks, and "forwarding" for its switch
        const char* calls;
        testing::Matcher<std::string> trace;
        bool stamped;  // the mark of patrol
    } steps[] = {
        {"set back", -300, ":", "conf diag", "", testing::_, false},
        {"five minutes after that", 0, ":", "conf diag", "status status ", testing::_, false},
        {"before five minutes", 299, ":", "conf diag", "", testing::_, false},
        {"both still reported", 300, "echo exit 1 >../react", "conf diag", "status status ", testing::_, false},
        {"before ten minutes", 599, "echo exit 0 >../react", "conf diag", "", testing::_, false},
        {"neither reported", 600, ":", "", "status status ", HasSubstr("Warning:conf 0 status is cleared by patrol.\n"),
         false},
        {"switch turned on", 900, "echo '[section 7]\nactive = yes' >pvo.ini", "forwarding", "", testing::_, false},
        {"jobs added", 960, "echo '* * * * * patrol\tx\n0 0 31 2 * padiag' >timer_jobs; touch -d 2020-01-01 *",
         "patrol padiag forwarding", "x ",
         HasSubstr("timer:patrol is changed to be enabled\ntimer:padiag is changed to be enabled\n"), true},
        {"nothing changed, failed run", 1020, "echo exit 1 >../react", "patrol padiag forwarding", "x ",
         Not(AnyOf(HasSubstr("changed"), HasSubstr("read jobs"))), true},
        {"nanoseconds or size changed", 1030,
         "echo '* * * * * pbtrol\tx\n0 0 31 2 * padiag' >timer_jobs; touch -d '2020-01-01 00:00:00.5' timer_jobs; "
         "echo '[section 7]\nactive = no' >pvo.ini; touch -d 2020-01-01 pvo.ini",
         "padiag", "", testing::_, true},
        {"only the inode changed", 1040,
         "echo '* * * * * patrol\tx\n0 0 31 2 * padiag' >new; touch -r timer_jobs new; mv new timer_jobs; "
         "echo '[section 7]\nactive =yes' >new; touch -r pvo.ini new; mv new pvo.ini",
         "patrol padiag forwarding", "x ", testing::_, true},
        {"a directory in place of the job file", 1050, "mv timer_jobs kept; mkdir timer_jobs", "forwarding", "",
         HasSubstr("cannot open.(errno=21)\n"), true},
        {"the job file put back unchanged", 1060, "rmdir timer_jobs; mv kept timer_jobs", "patrol padiag forwarding",
         "x ", testing::_, true},
        {"job of a module with a longer name", 1070, "echo '* * * * * patrolx\ty' >timer_jobs", "patrol forwarding", "",
         HasSubstr("timer:padiag is changed to be disabled\n"), false},
        {"jobs and switch removed", 1080, "rm pvo.ini; echo >timer_jobs; touch -d 2019-01-01 *", "forwarding", "",
         HasSubstr("timer:patrol is changed to be disabled\n"), true},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        shell(std::string("rm -f calls log/sched_log; cd config; ") + step.change);
        st->patrol.stamp.ticks = 0;
        timer_pass(state, 1'000'000'000 + step.seconds);
        std::string set;
        for (const auto& [name, is_set] : {std::pair{"conf", +st->conf.set},
                                           {"diag", +st->diag.set},
                                           {"patrol", +st->patrol.set},
                                           {"padiag", +st->padiag.set},
                                           {"forwarding", +qmx_syslog_is_enable}})
            if (is_set != 0) set += (set.empty() ? "" : " ") + std::string(name);
        EXPECT_EQ(set, step.set);
        EXPECT_EQ(shell("cat calls 2>/dev/null | tr '\\n' ' '"), step.calls);
        EXPECT_THAT(trace(), step.trace);
        EXPECT_EQ(st->patrol.stamp.ticks != 0, step.stamped);
    }
}

// Reading fails for a user without the right to; as root the test becomes such a user meanwhile.
TEST_F(Timer, ForwardingKeepsItsStateWhileItsFileCannotBeReadAndSeesWhenItCan) {
    const bool is_root = geteuid() == 0;
    write("pipe", "");
    fs::permissions(dir, fs::perms(0711));
    fs::permissions(path("log"), fs::perms::all);
    fs::permissions(path("data"), fs::perms::all);
    const std::string changed = "timer:pvo.ini is changed. mtime=1577836800\n";
    timer_state state{1'000'000'000, {}};
    qmx_syslog_is_enable = 0;
    // The steps follow one another: each changes the file, makes two passes and asks for the switch to be read.
    const struct {
        const char* name;
        const char* change;
        int enabled;
        std::string trace;  // of both passes
    } steps[] = {
        {"readable", "echo '[section 1]\nactive = yes' >pvo.ini", 1, changed},
        {"changed and unreadable", "echo '[section 1]\nactive = no' >pvo.ini; chmod 0 pvo.ini", 1, changed},
        {"still unreadable", ":", 1, ""},
        {"made readable", "chmod 644 pvo.ini", 0, changed},
        {"changed again", "echo '[section 1]\nactive = yes' >pvo.ini", 1, changed},
        {"made unreadable", "chmod 0 pvo.ini", 1, ""},
        {"removed", "rm pvo.ini", 0, ""},
        {"a directory", "mkdir pvo.ini", 0, changed},
        {"a file again", "rmdir pvo.ini; echo '[section 1]\nactive = yes' >pvo.ini", 1, changed},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.name);
        shell(std::string("cd config; ") + step.change + "; touch -c -d 2020-01-01T00:00Z pvo.ini");
        trace();
        EXPECT_TRUE(!is_root || seteuid(65534) == 0);
        timer_pass(state, 1'000'000'000);
        timer_pass(state, 1'000'000'060);
        syslog_enable_check();  // as after a command of an operator
        EXPECT_TRUE(!is_root || seteuid(0) == 0);
        EXPECT_EQ(qmx_syslog_is_enable, step.enabled);
        EXPECT_EQ(trace(), step.trace);
    }
}

}  // namespace unit
