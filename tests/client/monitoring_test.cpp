// Metrics, checks and the follower: what they show, and that they take no message away from the operator.
#include "connection.h"
#include "e2e/harness.h"
#include "spool.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/stat.h>

using namespace e2e;
using nlohmann::json;

namespace {

int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) { ++count; }
    return count;
}

class ClientMonitoring : public testing::Test {
protected:
    // What the client prints on both outputs, then "code" and its exit code.
    std::string ctl(const std::string& arguments, const std::string& filter = "") const {
        return shell(environment() + "timeout 60 " SCHEDCTL_BINARY " " + arguments + " 2>&1 </dev/null " + filter +
                     "; echo code $?");
    }

    std::string environment() const {
        return "export VGD_data=" + suite.path("data") + " XDG_STATE_HOME=" + suite.path("state") +
               " SCHED_PORT=" + std::to_string(suite.port) + "; ";
    }

    int traced(const std::string& text) const { return occurrences(suite.trace(), text); }
    int connections() const { return traced(") is coming"); }

    // Sends a message while no client is connected. A connection that is just ending would take it.
    void raise(const std::string& text) {
        ASSERT_TRUE(wait_until([&] { return traced(") is gone.") == connections(); }));
        const std::size_t before = suite.events().size();
        suite.event(text + "\n");
        suite.await_events(before + 1);
    }

    Suite suite;
};

TEST_F(ClientMonitoring, MessagesThatACollectorReceivesReachTheOperatorOnce) {
    suite.start();
    const struct {
        const char* name;
        std::string reader;  // the operator's later command
        int rounds = 2;      // visits of each collector
    } cases[] = {
        {"one command", SCHEDCTL_BINARY " --json status", 10},
        {"plain", SCHEDCTL_BINARY " status"},
        {"one command for several", SCHEDCTL_BINARY " -H 127.0.0.1,localhost:1 status"},
        {"JSON of several", SCHEDCTL_BINARY " -H localhost:1,127.0.0.1 --json status"},
        {"a session", "echo status | " SCHEDCTL_BINARY},
        {"the live view", "timeout -s INT 2 " SCHEDCTL_BINARY " watch"},
        {"the live view of several", "timeout -s INT 2 " SCHEDCTL_BINARY " -H 127.0.0.1,localhost:1 watch"},
        {"the follower", "timeout -s INT 2 " SCHEDCTL_BINARY " watch --json"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        raise("E0101:fan \xff 3 of "s + c.name);
        for (int i = 0; i < c.rounds; ++i) {
            EXPECT_THAT(ctl("metrics"), HasSubstr("\nsched_condition{name=\"error\"} 1\n"));
            EXPECT_THAT(ctl("check"), HasSubstr("CRITICAL - error since "));
        }
        const std::string shown = shell(environment() + c.reader);
        EXPECT_EQ(occurrences(shown, " 3 of "s + c.name), 1) << shown;
        EXPECT_THAT(ctl("--json status"), HasSubstr("\"messages\":[],\"lost\":0"));
    }
}

TEST_F(ClientMonitoring, TimedOutCheckLosesNoMessage) {
    suite.start();
    raise("E0101:counted");
    ctl("check");
    raise("E0101:while it hung");
    const int before = connections();
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    EXPECT_THAT(ctl("-t 1 check"), AllOf(HasSubstr("SCHED UNKNOWN - no answer in time"), EndsWith("code 3\n")));
    EXPECT_THAT(ctl("-t 1 check --timeout-state critical"), EndsWith("code 2\n"));
    EXPECT_THAT(ctl("-t 1 metrics"), AllOf(HasSubstr("\nsched_up 0\n"), HasSubstr("{severity=\"error\"} 1\n"),
                                           Not(HasSubstr("sched_condition"))));
    EXPECT_EQ(connections(), before);
    kill(frozen, SIGCONT);
    std::string shown;
    ASSERT_TRUE(wait_until([&] {
        shown += ctl("status");
        return shown.find("while it hung") != std::string::npos;
    }));
    EXPECT_EQ(occurrences(shown + ctl("status"), "while it hung"), 1);
}

TEST_F(ClientMonitoring, SpoolIsBoundedAndCountsWhatItDrops) {
    setenv("XDG_STATE_HOME", suite.path("state").c_str(), 1);
    client::endpoint where;
    where.host = "localhost";
    where.port = 9980;
    const client::spool spool(where);
    client::status_report report{{}, {{"2026-11-25T10:00:00+00:00", "E0101:first"}}, 2};
    client::spool_content content;
    std::string problem;
    ASSERT_TRUE(spool.append(report, content, problem)) << problem;
    report = {{}, std::vector<client::message>(client::most_spooled, {"2026-11-25T10:00:01+00:00", "W0104:rest"}), 0};
    ASSERT_TRUE(spool.append(report, content, problem)) << problem;
    where.host = "127.0.0.1";
    const client::spool same(where);
    same.hand_over([](const client::status_report&) { return false; });  // not shown, so it is kept
    same.hand_over([](const client::status_report& waiting) {
        EXPECT_EQ(waiting.messages.size(), client::most_spooled);
        EXPECT_EQ(waiting.messages.front().text, "W0104:rest");
        EXPECT_EQ(waiting.lost, 3U);
        return true;
    });
    ASSERT_TRUE(spool.append({}, content, problem)) << problem;
    EXPECT_TRUE(content.waiting.messages.empty());
    EXPECT_EQ(content.totals.error, 1U);
    EXPECT_EQ(content.totals.lost, 3U);
    unsetenv("XDG_STATE_HOME");
    suite.start();
    shell("mkdir " + suite.path("state/schedctl/spool-127.0.0.1:" + std::to_string(suite.port)));
    raise("E0101:cannot be kept");
    EXPECT_THAT(ctl("check"), AllOf(HasSubstr(";E0101:cannot be kept\n"), HasSubstr("CRITICAL"), EndsWith("code 2\n")));
    const int before = connections();
    // When messages cannot be stored, the scheduler is not asked.
    shell("rm -r " + suite.path("state") + "; touch " + suite.path("state"));
    EXPECT_THAT(ctl("check"), AllOf(HasSubstr("SCHED UNKNOWN - "), EndsWith("code 3\n")));
    EXPECT_EQ(connections(), before);
}

TEST_F(ClientMonitoring, CheckStateFollowsTheConditionsAndThresholds) {
    suite.start();
    const std::string nobody = std::to_string(free_port());
    const struct {
        const char* event;  // sent before
        std::string arguments;
        int code;
        const char* line;
    } cases[] = {
        {"", "check", 0, "SCHED OK - no condition is set | error=0;;0;0;1 prevent=0;0;;0;1 "},
        {"W0104:bar | bar", "check", 1, "SCHED WARNING - conf since "},
        {"", "check -w none", 0, "newest message: W0104:bar / bar | error=0"},
        {"", "check -w diag,snap -c none", 0, "SCHED OK - conf since "},
        {"", "check -c snap,conf", 2, "SCHED CRITICAL - conf since "},
        {"E0101:fan", "check", 2, "SCHED CRITICAL - error since "},
        {"", "check -c none", 1, "SCHED WARNING - error since "},
        {"", "check -c fan", 3, "fan not in"},
        {"", "-p " + nobody + " check", 2, "Connection refused"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        if (*c.event != '\0') { raise(c.event); }
        EXPECT_THAT(ctl(c.arguments), AllOf(HasSubstr(c.line), EndsWith("\ncode " + std::to_string(c.code) + "\n")));
    }
}

TEST_F(ClientMonitoring, MetricsAreCompleteAndWellFormed) {
    suite.write("data/up_time", "1440\n");
    suite.write("config/timer_jobs", "0 3 * * * diag\tstatus\n");
    suite.module("shown", "exit 0");
    suite.listed("other odd name 60");
    suite.start();
    ctl("modcntl other off");
    const Client operator_ = suite.client();
    const std::string file = suite.path("sched.prom");
    ASSERT_EQ(ctl("metrics --output " + file), "code 0\n");
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0644U);
    const std::string written = suite.read("sched.prom");
    for (const char* line :
         {"sched_up 1", "# TYPE sched_messages_lost_total counter", "sched_messages_lost_total 0",
          "sched_module_enabled{module=\"other\"} 0", "sched_timer_jobs 1", "sched_connected_operators 1",
          "sched_uptime_seconds_total 86400", "sched_build_info{version=\"" SCHED_VERSION "\"} 1"}) {
        EXPECT_THAT(written, HasSubstr("\n"s + line + "\n"));
    }
    EXPECT_THAT(written, Not(HasSubstr("# EOF")));
    EXPECT_THAT(ctl("metrics --format openmetrics"),
                AllOf(HasSubstr("# TYPE sched_messages_lost counter\nsched_messages_lost_total 0\n"),
                      EndsWith("# EOF\ncode 0\n")));
    EXPECT_THAT(ctl("metrics --output /no/where"), EndsWith("code 200\n"));
    shell("mkfifo " + suite.path("fifo"));
    EXPECT_THAT(ctl("metrics --output " + suite.path("fifo")), EndsWith("not a regular file\ncode 200\n"));
    if (shell("command -v promtool").empty()) { GTEST_SKIP() << "promtool is not installed"; }
    EXPECT_EQ(shell("promtool check metrics <" + file + " 2>&1"), "");
    EXPECT_EQ(ctl("metrics", "| promtool check metrics"), "code 0\n");
}

TEST_F(ClientMonitoring, ExporterAnswersOnlyForAValidTarget) {
    suite.start();
    const std::string port = std::to_string(free_port());
    const std::string server =
        shell(environment() + SCHEDCTL_BINARY " metrics --listen :" + port + " >/dev/null 2>&1 & echo $!");
    ASSERT_TRUE(wait_until([&] { return !shell("curl -s 127.0.0.1:" + port + "/metrics").empty(); }));
    const std::string here = "127.0.0.1:" + std::to_string(suite.port);
    const struct {
        std::string request;
        const char* answer;
    } cases[] = {
        {"/metrics?target=" + here, "\nsched_up 1\n"},
        {"/metrics?target=127.0.0.1:" + std::to_string(free_port()), "\nsched_up 0\n"},
        {"/metrics", "400"},
        {"/metrics?target=", "400"},
        {"/metrics?target=-V", "400"},
        {"/metrics?target=a%20b:1", "400"},
        {"/metrics?target=127.0.0.1:0", "400"},
        {"/metrics?target=127.0.0.1:99999", "400"},
        {"/metrics?target=" + here + "&target=localhost", "400"},
        {"/other", "404"},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(shell("curl -s -w '%{http_code}' '127.0.0.1:" + port + c.request + "'"), HasSubstr(c.answer))
            << c.request;
    }
    EXPECT_THAT(
        shell("curl -s -H 'Accept: application/openmetrics-text' '127.0.0.1:" + port + "/metrics?target=" + here + "'"),
        EndsWith("# EOF\n"));
    shell("kill " + server);
}

// Of one scheduler, and of two by one process.
class Follower : public ClientMonitoring, public testing::WithParamInterface<bool> {
protected:
    void follow(const std::string& hosts) const {
        shell(environment() + "{ sh -c 'echo $$ >" + suite.path("pid") + "; exec " SCHEDCTL_BINARY " " + hosts +
              " -t 1 watch --json -n 1 >" + suite.path("lines") + "'; echo $? >" + suite.path("code") +
              "; } >/dev/null 2>&1 &");
    }

    int told(const Suite& of, const std::string& part) const {
        int count = 0;
        std::istringstream lines(suite.read("lines"));
        for (std::string line; std::getline(lines, line);) {
            const json value = json::parse(line, nullptr, false);
            EXPECT_TRUE(value.is_object() && value["host"] == "127.0.0.1" && mask_dates(value["time"]) == "DATE")
                << line;
            count += value["port"] == of.port ? occurrences(line, part) : 0;
        }
        return count;
    }

    void await(const Suite& of, const std::string& part, int count = 1) const {
        ASSERT_TRUE(wait_until([&] { return told(of, part) == count; }))
            << part << " is not in " << suite.read("lines");
    }
};

INSTANTIATE_TEST_SUITE_P(Hosts, Follower, testing::Bool(),
                         [](const auto& hosts) { return hosts.param ? "Several" : "One"; });

TEST_P(Follower, WritesEachChangeAndServesTheChecks) {
    Suite second;
    second.start();
    follow(GetParam() ? "-H 127.0.0.1,127.0.0.1:" + std::to_string(second.port) : "");
    await(suite, "\"event\":\"disconnected\"");  // it may be started before the scheduler
    suite.start();
    await(suite, "\"event\":\"connected\"");
    suite.event("E0101:fan \"3\" \xff\n");
    await(suite,
          "\"event\":\"message\",\"code\":\"E0101\",\"severity\":\"error\",\"text\":\"E0101:fan \\\"3\\\" \\ufffd\"}");
    await(suite, "\"event\":\"condition\",\"name\":\"error\",\"set\":true}");
    const int before = connections();
    EXPECT_THAT(ctl("check"), AllOf(HasSubstr("CRITICAL"), HasSubstr("E0101:fan")));
    EXPECT_THAT(ctl("metrics"), HasSubstr("sched_messages_total{severity=\"error\"} 1\n"));
    const pid_t stalled = suite.scheduler();
    kill(stalled, SIGSTOP);  // its connection is kept, and what comes late is told
    await(suite, "no answer in time");
    suite.event("W0104:late\n");
    second.event("W0104:second\n");
    if (GetParam()) { await(second, "W0104:second"); }
    kill(stalled, SIGCONT);
    await(suite, "W0104:late");
    EXPECT_EQ(connections(), before);
    ctl("parts clear");
    await(suite, "\"event\":\"condition\",\"name\":\"error\",\"set\":false}");
    suite.stop();
    await(suite, "disconnected", 3);
    EXPECT_THAT(ctl("check"), AllOf(HasSubstr("CRITICAL - no connection"), EndsWith("code 2\n")));
    suite.start();
    await(suite, "\"connected\"", 3);
    shell("kill " + suite.read("pid"));
    ASSERT_TRUE(wait_until([&] { return !suite.read("code").empty(); }));
    EXPECT_EQ(suite.read("code"), "0\n");
    EXPECT_EQ(told(second, "\"connected\""), GetParam() ? 1 : 0);
    EXPECT_EQ(shell("ls " + suite.path("state/schedctl") + " | grep json"), "");
}

TEST_F(ClientMonitoring, FollowerEndsWithItsReader) {
    suite.start();
    // The reader ends while the follower has nothing to write.
    EXPECT_EQ(shell(environment() + "{ timeout 60 " SCHEDCTL_BINARY " watch --json --level-prefix; echo $? >" +
                    suite.path("code") + "; } | { read -r line; echo \"$line\" | cut -c 1-3; sleep 1; }"),
              "<5>\n");
    ASSERT_TRUE(wait_until([&] { return !suite.read("code").empty(); }));
    EXPECT_EQ(suite.read("code"), "0\n");
}

}  // namespace
