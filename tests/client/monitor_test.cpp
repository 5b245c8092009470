// Metrics, checks and the exporter: what they show, and that they take no message away from the operator.
#include "client/scripted_scheduler.h"
#include "client/terminal.h"
#include "e2e/harness.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

using namespace e2e;

namespace {

using testing::AllOf;

class E2eMonitor : public ClientTest {
protected:
    int traced(const std::string& text) const { return occurrences(suite.trace(), text); }

    // Sends a message while no client is connected. A connection that is just ending would take it.
    void raise(const std::string& text) {
        ASSERT_TRUE(wait_until([&] { return traced(") is gone.") == connections(); }));
        suite.raise(text);
    }

    // Nothing can be stored any more.
    void spoil_state() const { shell("rm -r " + suite.path("state") + "; touch " + suite.path("state")); }
};

TEST_F(E2eMonitor, CheckThatIsCutShortLosesNoMessage) {
    suite.start();
    const auto expect_once = [&](const std::string& text) {
        std::string shown;
        EXPECT_TRUE(wait_until([&] {
            shown += ctl("status");
            return shown.find(text) != std::string::npos;
        })) << text;
        EXPECT_EQ(occurrences(shown + ctl("status"), text), 1);
    };
    raise("E0101:counted");
    ctl("check");
    raise("E0101:while it hung");
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    EXPECT_THAT(ctl("-t 1 check"), AllOf(HasSubstr("SCHED UNKNOWN - no answer in time"), EndsWith("code 3\n")));
    EXPECT_THAT(ctl("-t 3 check --timeout-state critical"), EndsWith("code 2\n"));
    EXPECT_THAT(ctl("-t 1 metrics"), AllOf(StartsWith("schedctl: no answer in time\n"), HasSubstr("\nsched_up 0\n"),
                                           HasSubstr("{severity=\"error\"} 1\n"), Not(HasSubstr("sched_condition"))));
    kill(frozen, SIGCONT);
    expect_once("while it hung");
    raise("E0101:when its caller was killed");
    kill(frozen, SIGSTOP);
    // A script may run the client while it holds a lock: the agent does not keep the lock when it goes on alone.
    const std::string lock = "flock -n " + suite.path("lock") + " ";
    shell(environment() + lock + "timeout -s KILL 2 " SCHEDCTL_BINARY " check");  // ends the process group
    EXPECT_EQ(shell(lock + "echo free"), "free\n");
    kill(frozen, SIGCONT);
    expect_once("when its caller was killed");
    kill(frozen, SIGSTOP);
    EXPECT_THAT(ctl("check & until a=$(pgrep -P $(pgrep -P $!)) 2>&-; do sleep 0.01; done; kill -9 $a; wait $!"),
                EndsWith("code 3\n"));
    kill(frozen, SIGCONT);
}

TEST_F(E2eMonitor, LossThatIsReportedAtTheEndOfAConnectionIsCounted) {
    const std::string date = "confdate 2026-11-25T10:00:00+00:00\r\n";
    const std::string lost = "W0100: message queue overflow, 3 messages were lost.\r\n";
    const ScriptedScheduler scheduler(suite.port,
                                      {{{"status", date + over}, {"status", date + lost + over}, {"quit", goodbye}}});
    EXPECT_THAT(ctl("-u otto check"), HasSubstr(" lost=3c;"));  // without a greeting
}

TEST_F(E2eMonitor, FaultOfOurOwnIsNoSchedulerThatIsDown) {
    suite.start();
    const std::string file = suite.path("sched.prom");
    EXPECT_EQ(ctl("metrics -o " + file), "code 0\n");
    EXPECT_THAT(suite.read("sched.prom"), AllOf(HasSubstr("\nsched_collect_error 0\n"), HasSubstr("\nsched_up 1\n")));
    const int before = connections();
    spoil_state();
    EXPECT_THAT(ctl("check"), AllOf(HasSubstr("SCHED UNKNOWN - "), EndsWith("code 3\n")));
    EXPECT_THAT(ctl("metrics"), AllOf(Not(HasSubstr("sched_")), EndsWith("code 200\n")));
    EXPECT_THAT(ctl("metrics -o " + file), EndsWith("code 200\n"));
    EXPECT_THAT(suite.read("sched.prom"), AllOf(HasSubstr("\nsched_collect_error 1\n"), Not(HasSubstr("sched_up"))));
    EXPECT_EQ(connections(), before);
}

// In namespaces of its own, where the service has run for an hour and nothing can be connected to.
TEST_F(E2eMonitor, UptimeOfTheServiceIsThatOfItsPortOnly) {
    const std::string inside =
        "unset VGD_data SCHED_PORT; unshare --user --map-root-user --mount --net sh -c '"
        "mount -t tmpfs none /var/lib && mkdir /var/lib/sched && "
        "echo 60 >/var/lib/sched/up_time && ";
    if (shell(inside + "echo made' 2>/dev/null") != "made\n") { GTEST_SKIP() << "no namespaces here"; }
    for (const std::string host : {"localhost", "127.0.0.1:9979", "db1"})
        EXPECT_EQ(shell(environment() + inside + SCHEDCTL_BINARY " -t 1 -H " + host +
                        " metrics 2>/dev/null | grep ^sched_uptime'"),
                  host == "localhost" ? "sched_uptime_seconds_total 3600\n" : "");
}

TEST_F(E2eMonitor, CheckStateFollowsTheConditionsAndThresholds) {
    suite.start();
    const std::string nobody = std::to_string(free_port());
    const std::string here = "127.0.0.1:" + std::to_string(suite.port);
    suite.write("hosts", here + " rack=7\n127.0.0.1:" + nobody + "\n");
    const struct {
        const char* event;  // sent before
        std::string arguments;
        int code;
        std::string line;
    } cases[] = {
        {"", "check", 0, "SCHED OK - no condition is set | error=0;;0;0;1 prevent=0;0;;0;1 "},
        {"W0104:bar | bar", "check", 1, "SCHED WARNING - conf since "},
        {"", "-t 86400 check -w none", 0, "newest message: W0104:bar / bar | error=0"},
        {"", "check -w diag,snap -c none", 0, "SCHED OK - conf since "},
        {"", "check -c all", 2, "SCHED CRITICAL - conf since "},
        {"E0101:fan", "check", 2, "newest message: E0101:fan | error=1"},
        {"", "check -c none", 1, "SCHED WARNING - error since "},
        {"", "check -c fan", 3, "fan not in"},
        {"", "-p " + nobody + " check", 2, "Connection refused"},
        {"", "--hosts " + suite.path("hosts") + " check -c none -w none", 2, "SCHED OK - " + here + ": error since "},
        {"", "--hosts " + suite.path("hosts") + " check -c none", 2, "\nSCHED CRITICAL - 127.0.0.1:" + nobody + ": "},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        if (*c.event != '\0') { raise(c.event); }
        EXPECT_THAT(ctl(c.arguments), AllOf(HasSubstr(c.line), EndsWith("\ncode " + std::to_string(c.code) + "\n")));
    }
}

TEST_F(E2eMonitor, MetricsAreCompleteAndWellFormed) {
    suite.write("data/up_time", "1440\n");
    suite.write("config/timer_jobs", "0 3 * * * diag\tstatus\n");
    suite.module("shown", "exit 0");
    suite.listed("other odd name 60");
    suite.listed("a\\b\"c odd name 60");
    suite.start();
    ctl("modcntl other off");
    raise("E0101:fan");
    const Client operator_ = suite.client();
    const std::string file = suite.path("sched.prom");
    ASSERT_EQ(ctl("metrics --output " + file), "code 0\n");
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0644U);
    const std::string written = suite.read("sched.prom");
    for (const char* line : {"sched_up 1", "# TYPE sched_messages_lost_total counter", "sched_messages_lost_total 0",
                             "sched_module_enabled{module=\"other\"} 0", R"(sched_module_enabled{module="a\\b\"c"} 1)",
                             "sched_timer_jobs 1", "sched_connected_operators 1", "sched_condition{name=\"error\"} 1",
                             "sched_condition{name=\"snap\"} 0", "# UNIT sched_answer_seconds seconds",
                             "# TYPE sched_build_info gauge", "sched_build_info{version=\"" SCHED_VERSION "\"} 1"}) {
        EXPECT_THAT(written, HasSubstr("\n"s + line + "\n"));
    }
    // A minute may have ended since the start.
    EXPECT_THAT(written, testing::ContainsRegex("\nsched_uptime_seconds_total 864[06]0\n"));
    EXPECT_THAT(written, AllOf(testing::ContainsRegex("\nsched_status_age_seconds [0-9](\\.[0-9]+)?(e-[0-9]+)?\n"),
                               testing::ContainsRegex("\nsched_configuration_timestamp_seconds [0-9.]+(e.09)?\n"),
                               Not(HasSubstr("\nsched_answer_seconds 0\n")), Not(HasSubstr("# EOF"))));
    EXPECT_EQ(occurrences(written, "\nsched_condition_since_timestamp_seconds{name=\""), 1);
    EXPECT_THAT(ctl("metrics --format openmetrics"),
                AllOf(HasSubstr("# TYPE sched_messages_lost counter\nsched_messages_lost_total 0\n"),
                      HasSubstr("# TYPE sched_build info\n"), EndsWith("# EOF\ncode 0\n")));
    EXPECT_THAT(ctl("metrics"), AllOf(Not(HasSubstr(" counter\n")), EndsWith("# EOF\ncode 0\n")));
    EXPECT_THAT(ctl("metrics --format prometheus"),
                AllOf(HasSubstr("\n# TYPE sched_messages_lost_total counter\n"), Not(HasSubstr("# EOF"))));
    EXPECT_THAT(ctl("metrics --output /no/where"), EndsWith("code 200\n"));
    EXPECT_EQ(ctl("metrics >/dev/full"), "code 200\n");
    shell("mkfifo " + suite.path("fifo"));
    EXPECT_THAT(ctl("metrics --output " + suite.path("fifo")), EndsWith("not a regular file\ncode 200\n"));
    EXPECT_EQ(suite.read("sched.prom"), written);
    if (!shell("command -v promtool").empty()) { EXPECT_EQ(shell("promtool check metrics <" + file + " 2>&1"), ""); }
    if (!shell("/usr/bin/python3 -c 'import prometheus_client' 2>&1").empty()) {
        GTEST_SKIP() << "python3-prometheus-client is not installed";
    }
    EXPECT_THAT(
        shell(environment() + SCHEDCTL_BINARY " metrics --format openmetrics | /usr/bin/python3 -c '"
                                              "import sys, prometheus_client.openmetrics.parser as p\n"
                                              "print(*p.text_string_to_metric_families(sys.stdin.read()))' 2>&1"),
        HasSubstr("'a\\\\b\"c'"));
}

// The connection of a status must not stay open, and collect messages, while a pager shows the answer.
TEST_F(E2eMonitor, StatusThatIsReadLateTakesNoFurtherMessage) {
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

class E2eExporter : public E2eMonitor {
protected:
    ~E2eExporter() override {
        if (pid_ > 0) { kill(pid_, SIGKILL); }
    }

    void serve(const std::string& options = "", const std::string& address = ":") {
        pid_ = std::atoi(shell(environment() + "{ " SCHEDCTL_BINARY " " + options + " metrics --listen " + address +
                               http + " 2>" + suite.path("errors") + "; echo $? >" + suite.path("code") +
                               "; } >/dev/null 2>&1 & sh -c 'until pgrep -P $0; do sleep 0.01; done' $!")
                             .c_str());
        ASSERT_TRUE(wait_until([&] { return get("/-/healthy") == "OK\n200"; })) << suite.read("errors");
    }

    // The body and the status of an answer.
    std::string get(const std::string& path, const std::string& options = "") const {
        return shell("curl -s -m " + limit + " -w '%{http_code}' " + options + " 'http://127.0.0.1:" + http + path +
                     "'");
    }

    // All that the server sends to these bytes; the printf of a shell expands their escapes.
    std::string raw(const std::string& bytes) const {
        return shell("bash -c \"exec 3<>/dev/tcp/127.0.0.1/" + http + "; { " + bytes + "; } | cat >&3; timeout " +
                     limit + " cat <&3\" 2>&1");
    }

    long field(const std::string& file, const std::string& name) const {
        return std::atol(shell("sed -n 's/^" + name + "//p' /proc/" + std::to_string(pid_) + "/" + file).c_str());
    }

    int descriptors(const std::string& kind = "\n") const {
        return occurrences(shell("ls -l /proc/" + std::to_string(pid_) + "/fd"), kind);
    }

    const std::string http = std::to_string(free_port());
    const std::string here = "127.0.0.1:" + std::to_string(suite.port);
    pid_t pid_ = -1;
};

TEST_F(E2eExporter, AnswersOnlyForAValidTarget) {
    suite.start();
    serve();
    EXPECT_THAT(get("/metrics?target=" + here), HasSubstr("\nsched_up 1\n"));
    const int open_before = descriptors();  // with the file of the mailbox
    const std::string nobody = "127.0.0.1:" + std::to_string(free_port());
    for (const auto& [request, answer] : {
             std::pair("/metrics?target=" + nobody, "\nsched_up 0\n"),
             {"/metrics?target=" + std::string(255, 'a') + ":12345", "\nsched_up 0\n"},
             {"/other", "404"},
             {"/", "<a href=\"/metrics\">"},
             {"/targets", "[]\n200"},
             {"/metrics", "\nsched_exporter_errors_total 0\n"},
             {"/metrics", "\nsched_exporter_targets 3\n"},
             {"/metrics", "\n# UNIT process_resident_memory_bytes bytes\nprocess_resident_memory_bytes "},
         }) {
        ASSERT_THAT(get(request), HasSubstr(answer)) << request;
    }
    for (const std::string& target : {""s, "-V"s, "a%20b:1"s, here + "%00", "127.0.0.1:0"s, "127.0.0.1:99999"s,
                                      here + "&target=localhost", std::string(256, 'a') + ":12345"}) {
        EXPECT_THAT(get("/metrics?target=" + target), EndsWith("400")) << target;
    }
    EXPECT_THAT(get("/metrics?target=" + here, "-i -H 'Accept: application/openmetrics-text'"),
                AllOf(HasSubstr("\r\nContent-Type: application/openmetrics-text"), EndsWith("# EOF\n200")));
    EXPECT_TRUE(wait_until([&] { return descriptors() <= open_before; }));
    // Its messages are not kept from the operator while it runs.
    raise("E0101:for the operator");
    get("/metrics?target=" + here);
    EXPECT_TRUE(wait_until([&] { return ctl("status").find("E0101:for the operator") != std::string::npos; }));
}

TEST_F(E2eExporter, FaultOfItsOwnIsStatus500) {
    suite.start();
    shell("touch " + suite.path("state"));
    serve("", "0x7f000001:");  // not known as loopback
    EXPECT_THAT(get("/metrics?target=127.0.0.1:1"), EndsWith(" may be asked\n400"));
    EXPECT_THAT(get("/metrics?target=" + here), AllOf(Not(HasSubstr("sched_up")), EndsWith("500")));
    EXPECT_THAT(get("/metrics"), HasSubstr("\nsched_exporter_errors_total 1\n"));
}

TEST_F(E2eExporter, HostsFileSaysWhatMayBeAsked) {
    suite.start();
    suite.write("hosts", here + " rack=7 room=b\nDB1:99 # far\n");
    serve("--hosts " + suite.path("hosts"), "");
    EXPECT_EQ(get("/targets"), "[{\"targets\":[\"" + here +
                                   "\"],\"labels\":{\"rack\":\"7\",\"room\":\"b\"}},"
                                   "{\"targets\":[\"db1:99\"],\"labels\":{}}]\n200");
    EXPECT_THAT(get("/metrics?target=localhost:" + std::to_string(suite.port)), HasSubstr("\nsched_up 1\n"));
    EXPECT_THAT(get("/metrics?target=db2:99"), EndsWith("400"));
}

TEST_F(E2eExporter, CostOfARequestIsBounded) {
    suite.start();
    serve();
    const std::string target = "/metrics?target=" + here;
    const struct {
        const char* name;
        std::string bytes;
        const char* answer;
    } cases[] = {
        {"HTTP/1.0", "printf 'GET " + target + " HTTP/1.0\\r\\n\\r\\n'", "\nsched_up 1\n"},
        {"HEAD", "printf 'HEAD " + target + " HTTP/1.1\\r\\nHost: x\\r\\n\\r\\n'", "HTTP/1.1 200 OK"},
        {"pipelined", "printf 'GET / HTTP/1.1\\r\\nHost: x\\r\\n\\r\\nGET / HTTP/1.1\\r\\nHost: x\\r\\n\\r\\n'",
         " 200 OK"},
        {"a body", "printf 'GET / HTTP/1.1\\r\\nHost: x\\r\\nContent-Length: 9\\r\\n\\r\\n123'", "HTTP/1.1 413"},
        {"a method", "printf 'POST / HTTP/1.1\\r\\nHost: x\\r\\n\\r\\n'", "\r\nAllow: GET, HEAD\r\n"},
        {"no host", "printf 'GET / HTTP/1.1\\r\\n\\r\\n'", "HTTP/1.1 400"},
        {"a long line", "printf 'GET /'; head -c 100000000 /dev/zero | tr '\\0' a", ""},
        {"a long header", "printf 'GET / HTTP/1.1\\r\\nHost: '; head -c 100000000 /dev/zero | tr '\\0' a", ""},
    };
    const long before = field("status", "VmHWM:");
    for (const auto& c : cases) { EXPECT_THAT(raw(c.bytes), HasSubstr(c.answer)) << c.name; }
    EXPECT_EQ(occurrences(raw(cases[2].bytes), "200 OK"), 1);
    // A thousand requests that never end delay no other, and end.
    shell(
        "/usr/bin/python3 -c 'import socket,sys,time\n"
        "s=[socket.create_connection((\"127.0.0.1\",int(sys.argv[1]))) for _ in range(1000)]\n"
        "[x.send(b\"GET / HTTP/1.1\\r\\nX: \") for x in s]\n"
        "time.sleep(60)' " +
        http + " >/dev/null 2>&1 & echo $! >" + suite.path("slow"));
    ASSERT_TRUE(wait_until([&] { return descriptors() > 1000; }));
    EXPECT_THAT(get(target), HasSubstr("\nsched_up 1\n"));
#ifdef __SANITIZE_THREAD__
    constexpr long most = 80'000;  // its own records of each byte
#else
    constexpr long most = 20'000;
#endif
    EXPECT_LT(field("status", "VmHWM:") - before, most);  // kB
    EXPECT_TRUE(wait_until([&] { return descriptors() < 100; }));
    shell("kill " + suite.read("slow"));
}

TEST_F(E2eExporter, SilentSchedulerDelaysNobodyAndLosesNoMessage) {
    suite.start();
    serve();
    const std::string target = "/metrics?target=" + here;
    EXPECT_THAT(get(target), HasSubstr("\nsched_up 1\n"));
    raise("E0101:while it hung");
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    for (const auto at_most : {8s, 2s}) {  // at once, the second time
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_THAT(get(target), HasSubstr("\nsched_up 0\n"));
        EXPECT_LT(std::chrono::steady_clock::now() - begin, at_most);
    }
    EXPECT_THAT(get("/metrics"), HasSubstr("\nsched_exporter_silent_targets 1\n"));
    kill(pid_, SIGTERM);
    ASSERT_TRUE(wait_until([&] { return suite.read("code") == "0\n"; }));
    kill(frozen, SIGCONT);
    EXPECT_TRUE(wait_until([&] { return ctl("status").find("E0101:while it hung") != std::string::npos; }));
}

TEST_F(E2eExporter, SecondRequestJoinsTheVisit) {
    suite.start();
    serve("-t " + limit);
    const int sockets = descriptors("socket:");
    const int before = connections();
    kill(suite.scheduler(), SIGSTOP);
    for (int i = 0; i < 2; ++i) {
        shell("curl -s -m " + limit + " 'http://127.0.0.1:" + http + "/metrics?target=" + here + "' >>" +
              suite.path("answers") + " 2>/dev/null &");
    }
    EXPECT_TRUE(wait_until([&] { return descriptors("socket:") == sockets + 3; }));
    EXPECT_THAT(get("/-/healthy"), HasSubstr("OK"));  // both requests have been read before this one
    kill(suite.scheduler(), SIGCONT);
    EXPECT_TRUE(wait_until([&] { return occurrences(suite.read("answers"), "\nsched_up 1\n") == 2; }));
    EXPECT_EQ(connections(), before + 1);
}

}  // namespace
