// Metrics, checks and the follower: what they show, and that they take no message away from the operator.
#include "changes.h"
#include "connection.h"
#include "e2e/harness.h"
#include "snapshot.h"
#include "spool.h"
#include "state_path.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <sys/stat.h>
#include <thread>

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
    // What the client prints on both outputs, then "code" and its exit code: 124 when it hangs.
    std::string ctl(const std::string& arguments, const std::string& filter = "") const {
        return shell(environment() + "timeout " + limit + " " SCHEDCTL_BINARY " " + arguments + " 2>&1 </dev/null " +
                     filter + "; echo code $?");
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

    // The file that a follower writes anew with each look.
    std::string state_file() const {
        return suite.read("state/schedctl/127.0.0.1:" + std::to_string(suite.port) + ".json");
    }

    void await_look(const std::string& before) const {
        ASSERT_TRUE(wait_until([&] { return state_file() != before && !state_file().empty(); }));
    }

    // Starts a watch with a look each minute. Its lines come through a second process, which is its reader.
    void follow(const std::string& hosts, const std::string& form = "--json") const {
        shell(environment() + "cd " + suite.path("") + "; rm -f ended pid lines; { { timeout " + limit +
              " sh -c 'echo $$ >pid; exec " SCHEDCTL_BINARY " " + hosts + " watch " + form +
              " -n 60'; echo $? >code; } | sh -c 'echo $$ >reader; exec cat >lines'; echo >ended; } >/dev/null 2>&1 &");
        ASSERT_TRUE(wait_until([&] { return !suite.read("pid").empty(); }));
    }

    // Returns after the first look.
    void follow_seldom() const {
        const std::string before = state_file();
        follow("");
        await_look(before);
    }

    void end(const std::string& which, const std::string& signal = "TERM") const {
        shell("kill -" + signal + " " + suite.read(which));
        ASSERT_TRUE(wait_until([&] { return !suite.read("ended").empty(); }));
    }

    const std::string limit = std::to_string(patience / 1s);
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

TEST_F(ClientMonitoring, CheckThatIsCutShortLosesNoMessage) {
    suite.start();
    int asked = 0;
    const auto expect_once = [&](const std::string& text) {
        std::string shown;
        EXPECT_TRUE(wait_until([&] {
            shown += ctl("status");
            ++asked;
            return shown.find(text) != std::string::npos;
        })) << text;
        EXPECT_EQ(occurrences(shown + ctl("status"), text), 1);
        ++asked;
    };
    raise("E0101:counted");
    ctl("check");
    raise("E0101:while it hung");
    const int before = connections();
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    EXPECT_THAT(ctl("-t 1 check"), AllOf(HasSubstr("SCHED UNKNOWN - no answer in time"), EndsWith("code 3\n")));
    // While that visit waits, further ones do not connect, and wait no longer than they may.
    EXPECT_THAT(ctl("-t 1 check --timeout-state critical"), EndsWith("code 2\n"));
    EXPECT_THAT(ctl("-t 1 metrics"), AllOf(HasSubstr("\nsched_up 0\n"), HasSubstr("{severity=\"error\"} 1\n"),
                                           Not(HasSubstr("sched_condition"))));
    kill(frozen, SIGCONT);
    expect_once("while it hung");
    EXPECT_EQ(connections(), before + 1 + asked);
    raise("E0101:when its caller was killed");
    kill(frozen, SIGSTOP);
    shell(environment() + "timeout -s KILL 2 " SCHEDCTL_BINARY " check");  // ends the process group
    kill(frozen, SIGCONT);
    expect_once("when its caller was killed");
}

TEST_F(ClientMonitoring, LossThatIsToldAtTheEndOfAVisitIsCounted) {
    const unique_fd listener = listen_on(suite.port);
    std::string shown;
    std::thread check([&] { shown = ctl("check"); });
    const Client scheduler(listener);
    scheduler.send(over + "W0100: message queue overflow, 3 messages were lost.\r\n" + over + goodbye);
    check.join();
    EXPECT_THAT(shown, HasSubstr(" lost=3c;"));
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
    const auto collect = [&spool] {
        client::spool_content seen;
        std::string fault;
        for (int i = 0; i < 25; ++i) { spool.append({{}, {{"2026-11-25T10:00:02+00:00", "I1:"}}, 0}, seen, fault); }
    };
    std::vector<std::thread> collectors;
    for (int i = 0; i < 4; ++i) { collectors.emplace_back(collect); }
    for (std::thread& collector : collectors) { collector.join(); }
    ASSERT_TRUE(spool.append({}, content, problem)) << problem;
    EXPECT_EQ(content.waiting.messages.size(), 100U);
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

TEST_F(ClientMonitoring, FollowersStateIsForAllReadersUntilItIsTooOld) {
    setenv("XDG_STATE_HOME", suite.path("state").c_str(), 1);
    client::endpoint where;
    where.host = "127.0.0.1";
    where.port = static_cast<std::uint16_t>(suite.port);
    const std::string path = client::state_file_to_write(where);
    std::string problem;
    for (const double seconds : {-1.0, 600.0}) {
        ASSERT_TRUE(client::write_state_file(path, {}, client::wall_clock() + seconds, problem)) << problem;
        EXPECT_EQ(client::followed_state(where).has_value(), seconds > 0);
    }
    EXPECT_EQ(shell("stat -c %a " + path + " " + client::state_directory()), "644\n700\n");
    unsetenv("XDG_STATE_HOME");
}

TEST_F(ClientMonitoring, ChangesTellWhatWasSetAgainAndWhatEndedNow) {
    const std::string then = "2026-11-25T10:00:00+00:00";
    const std::string later = "2026-11-25T10:00:02+00:00";
    const std::vector<client::message> lines = client::changes({{"conf", then}, {"error", then}, {"prevent", then}},
                                                               {{{"conf", then}, {"error", later}}, {}, 0});
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].date + lines[0].text, later + "condition error set");
    EXPECT_EQ(lines[1].text, "condition prevent cleared");
    EXPECT_NE(lines[1].date, then);
}

// In namespaces of its own, where the service has run for an hour and nothing can be connected to.
TEST_F(ClientMonitoring, UptimeOfTheServiceIsThatOfItsPortOnly) {
    const std::string inside =
        "unset VGD_data; unshare --user --map-root-user --mount --net sh -c '"
        "mount -t tmpfs none /var/lib && mkdir /var/lib/sched && "
        "echo 60 >/var/lib/sched/up_time && ";
    if (shell(inside + "echo made' 2>/dev/null") != "made\n") { GTEST_SKIP() << "no namespaces here"; }
    for (const int port : {9980, suite.port}) {
        EXPECT_EQ(shell(environment() + inside + SCHEDCTL_BINARY " -p " + std::to_string(port) +
                        " metrics 2>/dev/null | grep ^sched_uptime'"),
                  port == 9980 ? "sched_uptime_seconds_total 3600\n" : "");
    }
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
    suite.listed("a\\b\"c odd name 60");
    suite.start();
    ctl("modcntl other off");
    const Client operator_ = suite.client();
    const std::string file = suite.path("sched.prom");
    ASSERT_EQ(ctl("metrics --output " + file), "code 0\n");
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0644U);
    const std::string written = suite.read("sched.prom");
    for (const char* line : {"sched_up 1", "# TYPE sched_messages_lost_total counter", "sched_messages_lost_total 0",
                             "sched_module_enabled{module=\"other\"} 0", R"(sched_module_enabled{module="a\\b\"c"} 1)",
                             "sched_timer_jobs 1", "sched_connected_operators 1", "sched_uptime_seconds_total 86400",
                             "sched_build_info{version=\"" SCHED_VERSION "\"} 1"}) {
        EXPECT_THAT(written, HasSubstr("\n"s + line + "\n"));
    }
    EXPECT_THAT(written, Not(HasSubstr("# EOF")));
    EXPECT_THAT(ctl("metrics --format openmetrics"),
                AllOf(HasSubstr("# TYPE sched_messages_lost counter\nsched_messages_lost_total 0\n"),
                      EndsWith("# EOF\ncode 0\n")));
    EXPECT_THAT(ctl("metrics --output /no/where"), EndsWith("code 200\n"));
    EXPECT_THAT(shell(environment() + "trap '' XFSZ; ulimit -f 0; " SCHEDCTL_BINARY " metrics -o " + file + " 2>&1"),
                EndsWith(": File too large\n"));
    EXPECT_EQ(shell("cd " + suite.path("") + "; echo sched.prom*") + suite.read("sched.prom"),
              "sched.prom\n" + written);
    shell("mkfifo " + suite.path("fifo"));
    EXPECT_THAT(ctl("metrics --output " + suite.path("fifo")), EndsWith("not a regular file\ncode 200\n"));
    if (shell("command -v promtool").empty()) { GTEST_SKIP() << "promtool is not installed"; }
    EXPECT_EQ(shell("promtool check metrics <" + file + " 2>&1"), "");
    EXPECT_EQ(ctl("metrics", "| promtool check metrics"), "code 0\n");
}

TEST_F(ClientMonitoring, ExporterAnswersOnlyForAValidTarget) {
    suite.start();
    const std::string port = std::to_string(free_port());
    const struct running {
        std::string pid;
        ~running() { shell("kill " + pid); }
    } server{shell(environment() + SCHEDCTL_BINARY " metrics --listen :" + port + " >/dev/null 2>&1 & printf %s $!")};
    const std::string get = "curl -s -m " + limit + " -w '%{http_code}' ";
    ASSERT_TRUE(
        wait_until([&] { return shell(get + "127.0.0.1:" + port + "/metrics").find("400") != std::string::npos; }));
    const auto descriptors = [&] { return occurrences(shell("ls /proc/" + server.pid + "/fd"), "\n"); };
    const int open_before = descriptors();
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
        ASSERT_THAT(shell(get + "'127.0.0.1:" + port + c.request + "'"), HasSubstr(c.answer)) << c.request;
    }
    EXPECT_THAT(
        shell("curl -s -H 'Accept: application/openmetrics-text' '127.0.0.1:" + port + "/metrics?target=" + here + "'"),
        EndsWith("# EOF\n"));
    EXPECT_TRUE(wait_until([&] { return descriptors() <= open_before; }));
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
    for (int i = 0; i < 2; ++i) { await_look(state_file()); }
    EXPECT_EQ(told(suite, "disconnected"), 1);
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

// The message waits at the scheduler for the look with which the follower ends.
TEST_F(ClientMonitoring, FollowerThatEndsLosesNoMessage) {
    suite.start();
    for (const std::string ends : {"pid", "reader"}) {
        SCOPED_TRACE(ends);
        follow_seldom();
        const std::size_t events = suite.events().size();
        suite.event("E0101:when it ended by " + ends + "\n");
        suite.await_events(events + 1);
        end(ends);
        EXPECT_EQ(suite.read("code"), "0\n");
        const std::string shown = suite.read("lines") + ctl("status");
        EXPECT_EQ(occurrences(shown, "when it ended by " + ends), 1) << shown;
    }
    // It is stopped until its first answer has come together with the signal that ends it.
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    follow("");
    usleep(300'000);
    shell("kill -STOP " + suite.read("pid"));
    const int before = connections();
    kill(frozen, SIGCONT);
    ASSERT_TRUE(wait_until([&] { return connections() > before; }));
    usleep(300'000);
    const std::size_t events = suite.events().size();
    suite.event("E0101:while it was stopped\n");
    suite.await_events(events + 1);
    shell("kill -TERM " + suite.read("pid"));
    end("pid", "CONT");
    const std::string shown = suite.read("lines") + ctl("status");
    EXPECT_EQ(occurrences(shown, "while it was stopped"), 1) << shown;

    raise("E0101:counted");
    follow_seldom();
    end("pid", "KILL");  // its state file stays, and the next one counts on
    follow_seldom();
    EXPECT_THAT(ctl("metrics"), HasSubstr("sched_messages_total{severity=\"error\"} 1\n"));
    end("pid");
}

TEST_F(ClientMonitoring, WatchThatEndsLosesNoMessage) {
    suite.start();
    for (const std::string& hosts : {std::string(), "-H 127.0.0.1:" + std::to_string(suite.port)}) {
        SCOPED_TRACE(hosts);
        follow(hosts, "");
        ASSERT_TRUE(wait_until([&] { return occurrences(suite.read("lines"), "confdate set") == 1; }));
        const std::size_t events = suite.events().size();
        suite.event("E0101:between two looks" + hosts + "\n");
        suite.await_events(events + 1);
        end("pid");
        EXPECT_EQ(suite.read("code"), "0\n");
        const std::string shown = suite.read("lines") + ctl("status");
        EXPECT_EQ(occurrences(shown, "between two looks" + hosts), 1) << shown;
    }
}

// The connection of a status must not stay open, and collect messages, while a pager shows the answer.
TEST_F(ClientMonitoring, StatusThatIsReadLateTakesNoFurtherMessage) {
    suite.start();
    for (int i = 0; i < 100; ++i) { raise("E0101:" + std::string(1000, 'x')); }
    ASSERT_EQ(mkfifo(suite.path("pager").c_str(), 0600), 0);
    const unique_fd pager(open(suite.path("pager").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const int before = connections();
    shell(environment() + "timeout " + limit + " " SCHEDCTL_BINARY " status >" + suite.path("pager") +
          " 2>/dev/null &");
    ASSERT_TRUE(wait_until([&] { return connections() > before; }));
    ASSERT_TRUE(wait_until([&] { return traced(") is gone.") == connections(); }, 20s));
    raise("E0110:while the pager waits");
    EXPECT_EQ(occurrences(ctl("status"), "E0110:while the pager waits"), 1);
}

}  // namespace
