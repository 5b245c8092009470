#include "command/module_table.h"
#include "event/syslog_switch.h"
#include "timer/job_field.h"
#include "timer/job_table.h"
#include "timer/timer_loop.h"
#include "timer/uptime.h"
#include "unit_support.h"

#include <random>

namespace unit {

// The numbers of the slots that are set.
template <std::size_t N>
std::string numbers(const std::uint8_t (&slots)[N]) {
    std::string all;
    for (std::size_t i = 0; i < N; ++i) all += slots[i] != 0 ? std::to_string(i) + " " : "";
    return all;
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

TEST_F(Timer, Fields) {
    // A field of 24 slots, the slots it sets, and its trace.
    for (const auto& [field, expected] :
         rows("5 x -> 5 |5/2 -> 5 |*/10\t7 -> 0 10 20 |1-9/4 -> 1 5 9 |1-5/2/3 -> 1 3 5 |,3,,1, -> 1 3 |"
              "7-7 -> 7 |5-3 -> |x -> 0 |/2 -> 0 |1- -> |3-x -> |007 -> 7 |+4 -> 4 |1-3-9 -> 1 2 3 |,, -> |"
              "*-3/11 -> 0 11 22 |23 -> 23 |0-23/99999999999 -> 0 |20-23 -> 20 21 22 23 | -> |3--1 -> |"
              "*/0 -> %invalid step\n|1,*/0,2 -> 1 %invalid step\n|1-5/-1 -> %invalid step\n|"
              "5/0 -> %invalid step\n|5,99,7 -> 5 7 %too large (99 > 24)\n|24 -> %too large (24 > 24)\n|"
              "1,20-24,2 -> 1 %too large (20 - 24 > 24)\n|99999999999 -> %too large (2147483647 > 24)\n|"
              "3,-5,4 -> 3 %negative value \"-5\"\n",
              "Error:timer:")) {
        std::uint8_t slots[24] = {};
        set_job_field(field.c_str(), slots, 24);
        EXPECT_EQ(numbers(slots) + trace(), expected) << field;
    }
}

TEST_F(Timer, Lines) {
    load("7 7 7 7 3 good\n");
    const job_record good = table.job[0];
    // A line before one that must come out as if it stood alone: its command, or 1 when it is short.
    for (const auto& [line, expected] :
         rows("0 3 * * * diag\ts -> diag\ts|0  3   *  * * a  b\tc  -> a  b\tc |0 3 * * * x\r -> x\r|"
              "#0 3 * * * x -> |0 3\t* * * x -> 1| -> 1|    -> 1|0 3 * * -> 1|0 3 * * * -> 1|0 3 * * *  -> 1|"
              "0 3 * * *\r -> 1| 0 3 * * * x -> * x|0 3 * * * % -> %|0 3 * * * %x -> %|0 3 * * * %% -> %",
              std::string(299, 'x'))) {
        load(line + "\n7 7 7 7 3 good\n");
        const bool is_short = trace().find("short line at line 1\n") != std::string::npos;
        EXPECT_EQ(table.jmax == 2 ? table.job[0].command : is_short ? "1" : "", expected) << line;
        ASSERT_GT(table.jmax, 0) << line;
        EXPECT_EQ(std::memcmp(&table.job[table.jmax - 1], &good, sizeof good), 0) << line;
    }
    load("#" + std::string(509, 'x') + "\n");
    EXPECT_THAT(trace(), Not(HasSubstr("short")));
    load("#" + std::string(510, 'x') + "\n");  // its end is a line of its own
    EXPECT_THAT(trace(), HasSubstr("short line at line 2\n"));
}

TEST_F(Timer, HoldsThirtyJobs) {
    std::string jobs;
    for (int i = 0; i < 29; ++i) jobs += "* * * * * job\n";
    EXPECT_EQ(load(jobs), 29);
    EXPECT_THAT(trace(), Not(HasSubstr("Warning:")));
    EXPECT_EQ(load(jobs + "*/15 * * * * patrolx\n1 2 3 4 5 padiag\n"), 30);
    EXPECT_THAT(trace(), HasSubstr("Warning:timer:job table full, ignore remains\n"));
    EXPECT_EQ(numbers(table.job[29].minute) + table.job[29].command, "0 15 30 45 60 patrolx");
    EXPECT_EQ(is_available_on_timer("patrol") * 10 + is_available_on_timer("padiag"), 10);
    const file_identity before = jobs_identity();
    fs::remove(path("config/timer_jobs"));
    timer_read_jobs();
    EXPECT_THAT(trace(), HasSubstr(path("config/timer_jobs") + " cannot open.(errno=2)\n"));
    EXPECT_EQ(is_available_on_timer("patrol"), 0);
    EXPECT_TRUE(jobs_identity() == before);
}

// The due minutes of a leap year against another cron, but for "*/s" in days and months, which starts from 1 there.
TEST_F(Timer, AgreesWithAnotherCron) {
    write("cron.py", R"(import croniter, random
random.seed(3)
choices = "0 59 7,30 */29", "0 23 5,6 */11", "* 1 29 1-10/3 28-31 5,15", "* 2 1,12 3-9/3 5 8", "* * 0 6 1-5 0-6/3 */2"
for i in range(300):
    field = " ".join(random.choice(texts.split()) for texts in choices)
    cron, total, digest = croniter.croniter(field, 1704067199), 0, 0
    while (due := (int(cron.get_next(float)) - 1704067200) // 60) < 366 * 1440:
        total, digest = total + 1, (digest * 31 + due) % 2**32
    print(field, "x ->", total, digest, end="|"))");
    const std::string expectations = shell("/usr/bin/python3 cron.py 2>&1");
    if (expectations.find("No module named") != std::string::npos) GTEST_SKIP() << "needs Debian's python3-croniter";
    for (const auto& [job, expected] : rows(expectations.c_str())) {
        EXPECT_EQ(load(job + "\n"), 1);
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
        EXPECT_EQ(std::to_string(total) + " " + std::to_string(digest), expected) << job;
    }
}

TEST_F(Timer, Uptime) {
    for (const auto& [content, expected] :
         rows("1440\n -> 1440 1441\n|0000000012\n -> 12 13\n|abc -> 0 1\n|7 -> 7 8\n| -> 0 1\n")) {
        write("data/up_time", content);
        server_uptime_init();
        const std::string start = std::to_string(st->uptime);
        server_uptime_logging();
        EXPECT_EQ(start + " " + read("data/up_time"), expected) << content;
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

TEST_F(Timer, Passes) {
    write("config/vgd_modules", "devconf m - 9\ndiag m - 9\npatrol m - 9\n");
    ASSERT_EQ(read_modules(), 0);
    program("m", "echo $1 >>$D/calls; . $D/react");
    write("pipe", "");
    qmx_syslog_is_enable = 0;
    timer_state state{1'000'000'000, {}};
    st->conf.set = st->diag.set = 1;
    // Changes files and makes a pass; tells the marks conf, diag, patrol and padiag, the switch, and what was run.
    const auto pass = [&](int seconds, const char* change) {
        shell(std::string("rm -f calls log/sched_log; cd config; ") + change);
        st->patrol.stamp.ticks = 0;
        timer_pass(state, 1'000'000'000 + seconds);
        const int on[] = {st->conf.set, st->diag.set, st->patrol.set, st->padiag.set, qmx_syslog_is_enable};
        return testing::PrintToString(on) + shell("cat calls 2>/dev/null | tr '\\n' ' '");
    };
    EXPECT_EQ(pass(299, ":"), "{ 1, 1, 0, 0, 0 }");
    EXPECT_EQ(pass(300, "echo exit 1 >../react"), "{ 1, 1, 0, 0, 0 }status status ");
    EXPECT_EQ(pass(599, "echo exit 0 >../react"), "{ 1, 1, 0, 0, 0 }");
    EXPECT_EQ(pass(600, ":"), "{ 0, 0, 0, 0, 0 }status status ");
    EXPECT_THAT(trace(), HasSubstr("Warning:conf 0 status is cleared by patrol.\n"));
    EXPECT_EQ(pass(900, "echo '[section 7]\nactive = yes' >pvo.ini"), "{ 0, 0, 0, 0, 1 }");
    const char* added = "echo '* * * * * patrol\tx\n0 0 31 2 * padiag' >timer_jobs; touch -d 2020-01-01 *";
    EXPECT_EQ(pass(960, added), "{ 0, 0, 1, 1, 1 }x ");
    EXPECT_THAT(trace(), HasSubstr("timer:patrol is changed to be enabled\ntimer:padiag is changed to be e"));
    EXPECT_EQ(pass(1020, "echo exit 1 >../react"), "{ 0, 0, 1, 1, 1 }x ");
    EXPECT_NE(st->patrol.stamp.ticks, 0);  // a run stamps, whatever its result
    EXPECT_THAT(trace(), Not(AnyOf(HasSubstr("changed"), HasSubstr("read jobs"))));
    // Changes within the second: only the nanoseconds, only the size, only the inode.
    const char* in_place =
        "echo '* * * * * pbtrol\tx\n0 0 31 2 * padiag' >timer_jobs; touch -d '2020-01-01 00:00:00.5' timer_jobs; "
        "echo '[section 7]\nactive = no' >pvo.ini; touch -d 2020-01-01 pvo.ini";
    EXPECT_EQ(pass(1030, in_place), "{ 0, 0, 0, 1, 0 }");
    const char* moved =
        "echo '* * * * * patrol\tx\n0 0 31 2 * padiag' >new; touch -r timer_jobs new; mv new timer_jobs; "
        "echo '[section 7]\nactive =yes' >new; touch -r pvo.ini new; mv new pvo.ini";
    EXPECT_EQ(pass(1040, moved), "{ 0, 0, 1, 1, 1 }x ");
    EXPECT_EQ(pass(1080, "rm pvo.ini; echo >timer_jobs; touch -d 2019-01-01 *"), "{ 0, 0, 0, 0, 1 }");
    EXPECT_NE(st->patrol.stamp.ticks, 0);  // so does a change
    EXPECT_THAT(trace(), HasSubstr("timer:padiag is changed to be disabled\n"));
}

}  // namespace unit
