// `watch` and `follow`: what they show of each change, and that no message is lost when they end.
#include "agent/agent.h"
#include "e2e/harness.h"
#include "terminal.h"
#include "watch/drawing.h"
#include "watch/events.h"
#include "watch/inquiry.h"
#include "watch/snapshot.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>

using namespace e2e;
using nlohmann::json;

namespace {

const std::string then = "2026-11-25T10:00:00+00:00";
const std::string later = "2026-11-25T10:00:02+00:00";

TEST(WatchChanges, AnAnswerTellsWhatWasSetAgainWhatEndedAndWhatBrokeOff) {
    const Suite scratch;
    setenv("XDG_STATE_HOME", scratch.path("state").c_str(), 1);
    client::inquiry round({"db1", "db1", 9980, ""});
    round.known.conditions = {{"conf", then}, {"error", then}, {"prevent", then}};
    round.known.messages.resize(20);  // no more are kept
    round.failed(client::outcome::no_answer);
    client::status_answer answer;
    answer.lines = {{7, then + ";E0101:conf " + later}, {8, "W0100: message queue overflow, 3 messages were lost."}};
    for (const auto& [name, date] : {std::pair("conf", then), {"error", later}}) {
        answer.lines.push_back({0, name + (" " + date)});
    }
    for (const bool complete : {true, false}) {
        SCOPED_TRACE(complete);
        answer.complete = complete;
        client::inquiry asked = round;
        const client::status_update update = asked.status(answer);
        ASSERT_EQ(update.messages.size(), 2U);
        EXPECT_EQ(update.messages[0].text, "E0101:conf " + later);
        EXPECT_EQ(update.messages[0].id, 7U);
        EXPECT_EQ(update.messages[1].lost, 3U);
        EXPECT_EQ(update.messages[1].id, 8U);
        EXPECT_EQ(asked.known.conditions.size(), complete ? 2U : 3U);
        EXPECT_EQ(asked.known.messages.size(), 20U);
        EXPECT_EQ(asked.known.failure == 0 && asked.known.problem.empty(), complete);
        EXPECT_EQ(asked.known.answered, 0);  // it is a last answer, which no request asked for
        ASSERT_EQ(update.changes.size(), complete ? 2U : 0U);
        if (complete) {
            EXPECT_EQ(line_of(update.changes[0]), later + " condition error set");
            EXPECT_THAT(line_of(update.changes[1]), EndsWith(" condition prevent cleared"));
        }
    }
}

TEST(WatchEvents, LinesHaveTheirPriorityAndMembers) {
    using namespace client;
    const host_name host{"DB1", "db1", 9981, ""};
    const struct {
        event what;
        const char* start;
        const char* members;
        const char* text;
    } cases[] = {
        {connected_event(), "<5>", R"("event":"connected"})", "connected"},
        {failed_event({outcome::closed, "why"}), "<3>", R"("reason":"no connection: why"})",
         "disconnected: no connection: why"},
        {failed_event(outcome::no_answer), "<3>", R"("event":"disconnected","reason":"no answer in time"})",
         "no answer"},
        {condition_event({"error", then}, true), "<3>", R"("name":"error","set":true})", "condition error set"},
        {condition_event({"conf", then}, true), "<4>", R"("name":"conf","set":true})", "condition conf set"},
        {condition_event({"patrol", then}, true), "<6>", R"("name":"patrol","set":true})", "condition patrol set"},
        {condition_event({"error", then}, false), "<5>", R"("name":"error","set":false})", "condition error cleared"},
        {message_event({then, "E0101:a \"\xff"}, 1), "<3>",
         R"("code":"E0101","severity":"error","text":"E0101:a \"\ufffd"})", "message E0101:a \"\xff"},
        {message_event({then, "W12x4:a"}, 1), "<4>", R"("code":"","severity":"warning","text":"W12x4:a"})",
         "message W12x4:a"},
        {message_event({then, "I0110 a"}, 1), "<6>", R"("code":"","severity":"info")", "message I0110 a"},
        {lost_event(3, 1), "<4>", R"("event":"lost","count":3})", "3 messages were lost"},
    };
    for (const auto& c : cases) {
        const std::string line = json_line(c.what, host, true);
        EXPECT_THAT(line, testing::AllOf(StartsWith(c.start), HasSubstr(c.members))) << c.text;
        EXPECT_THAT(line, HasSubstr(R"("host":"db1","port":9981,)"));
        EXPECT_EQ(line_of(c.what), c.what.date + " " + c.text);
        EXPECT_EQ("<" + std::to_string(c.what.priority) + ">" + json_line(c.what, host, false), line);
    }
}

TEST(WatchStateFile, IsBelievedForTwiceItsIntervalAndUntilTheMachineRestarts) {
    Suite scratch;
    setenv("XDG_STATE_HOME", scratch.path("state").c_str(), 1);
    const client::host_name host{"db1", "db1", 9980, ""};
    std::string problem;
    client::snapshot state;
    state.up = true;
    state.timer_jobs = 3;
    state.messages = {{then, "E0101:fan"}};
    ASSERT_TRUE(client::write_state_file(host, state, 600, problem)) << problem;
    const std::string name = "state/schedctl/" + client::key_of(host) + ".json";
    EXPECT_EQ(shell("stat -c %a " + scratch.path(name)), "644\n");
    const json written = json::parse(scratch.read(name));
    const std::optional<client::snapshot> read = client::followed_state(host);
    ASSERT_TRUE(read.has_value());
    EXPECT_TRUE(read->up && read->timer_jobs == 3 && read->operators < 0 && read->messages[0].text == "E0101:fan");
    const double now = written["written"];
    const struct {
        const char* name;
        json change;
        bool believed;
    } cases[] = {
        {"within two intervals", {{"written", now - 1100}}, true},
        {"after two intervals", {{"written", now - 1201}}, false},
        {"of a clock that began anew", {{"written", now + 100}}, false},
        {"of another start of the machine", {{"boot", "5c2d"}}, false},
        {"of an older version", {{"boot", nullptr}}, false},
        {"without a part", {{"totals", nullptr}}, false},
    };
    for (const auto& c : cases) {
        json changed = written;
        changed.update(c.change);
        scratch.write(name, changed.dump());
        EXPECT_EQ(client::followed_state(host).has_value(), c.believed) << c.name;
    }
    scratch.write(name, written.dump().substr(1));
    EXPECT_FALSE(client::followed_state(host).has_value());
    unsetenv("XDG_STATE_HOME");
}

TEST(WatchKeys, MoveTheTopEditTheFilterAndQuit) {
    for (const std::string line :  // typed keys > top and filter; _: being edited
         {"\033[A>9 old", "\033OA>9 old", "\033[B>11 old", "\033OB>11 old", "\033[5~>5 old", "\033[6~\033[A>14 old",
          "\033[H>0 old", "\033[F>1000010 old", "\033>10 ", "x>10 old", "/>10 _", "/qu\n>10 qu",
          "/b\177a\bb\177c\r>10 c", "/qu\033[B>11 qu_", "/qu\033>10 ", "q>10 old ends", "qx>10 old ends"}) {
        client::host_keys keys{.filter = "old", .top = 10, .page = 5};
        keys.handle(line.substr(0, line.find('>')));
        EXPECT_EQ(
            std::to_string(keys.top) + " " + keys.filter + (keys.editing ? "_" : "") + (keys.quits ? " ends" : ""),
            line.substr(line.find('>') + 1));
    }
}

class E2eWatch : public ClientTest {
protected:
    // Starts it with the files pid, reader (its pid), lines, code, and ended when both processes have ended.
    void run(const std::string& arguments) const {
        shell(environment() + "cd " + suite.path("") +
              "; rm -f ended pid lines; { { sh -c 'echo $$ >pid; exec " SCHEDCTL_BINARY " " + arguments +
              "'; echo $? >code; } 2>errors | sh -c 'echo $$ >reader; exec cat >lines'; "
              "echo >ended; } >/dev/null 2>&1 &");
        ASSERT_TRUE(wait_until([&] { return !suite.read("pid").empty() && !suite.read("reader").empty(); }));
    }

    int shown(const std::string& part, int port = 0) const {
        int count = 0;
        std::istringstream lines(suite.read("lines"));
        for (std::string line; std::getline(lines, line);) {
            const bool is_of = port == 0 || line.find("\"port\":" + std::to_string(port)) != std::string::npos;
            count += is_of ? occurrences(line, part) : 0;
        }
        return count;
    }

    void await(const std::string& part, int count = 1, int port = 0) const {
        ASSERT_TRUE(wait_until([&] { return shown(part, port) == count; }))
            << count << " times \"" << part << "\" is not in:\n"
            << suite.read("lines") << suite.read("errors");
    }

    void end(const std::string& which, const std::string& signal = "TERM") const {
        shell("kill -" + signal + " " + suite.read(which));
        ASSERT_TRUE(wait_until([&] { return !suite.read("ended").empty(); }));
    }

    std::string state_file() const {
        return suite.read("state/schedctl/127.0.0.1:" + std::to_string(suite.port) + ".json");
    }
};

// Of one scheduler, and of two by one process.
class E2eFollower : public E2eWatch, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Hosts, E2eFollower, testing::Bool(),
                         [](const auto& hosts) { return hosts.param ? "Several" : "One"; });

TEST_P(E2eFollower, WritesEachChangeAndServesTheChecks) {
    Suite second;
    second.start();
    run((GetParam() ? "-H 127.0.0.1,127.0.0.1:" + std::to_string(second.port) : "") + " -t 1 follow -n 1");
    for (int i = 1; i <= 2; ++i) {  // it may be started before the scheduler, and sees it come and go
        SCOPED_TRACE(i);
        const std::string number = std::to_string(i);
        await("\"disconnected\"", 2 * i - 1, suite.port);
        suite.write("config/timer_jobs", repeated(i, "0 3 1 1 * diag\tstatus\n"));
        suite.start();
        await("\"connected\"", 2 * i - 1, suite.port);
        suite.raise("E0101:fan " + number);
        await("\"text\":\"E0101:fan " + number, 1, suite.port);
        await("\"name\":\"error\",\"set\":true}", i, suite.port);
        EXPECT_THAT(ctl("check"), testing::AllOf(HasSubstr("CRITICAL"), HasSubstr("E0101:fan " + number)));
        EXPECT_THAT(ctl("metrics"), testing::AllOf(HasSubstr("_total{severity=\"error\"} " + number + "\n"),
                                                   HasSubstr("\nsched_timer_jobs " + number + "\n")));
        const int before = connections();
        const pid_t stalled = suite.scheduler();
        kill(stalled, SIGSTOP);  // its connection is kept, and what comes late is written
        await("no answer in time", i, suite.port);
        suite.event("W0104:late " + number + "\n");
        second.raise("W0104:second " + number);
        await("W0104:second " + number, GetParam() ? 1 : 0, second.port);
        EXPECT_THAT(ctl("check"), HasSubstr("no answer in time"));
        kill(stalled, SIGCONT);
        await("W0104:late " + number, 1, suite.port);
        await("\"connected\"", 2 * i, suite.port);
        EXPECT_EQ(connections(), before);
        suite.client().ask("parts\tclear");
        await("\"name\":\"error\",\"set\":false}", i, suite.port);
        suite.stop();
    }
    await("\"disconnected\"", 5, suite.port);
    EXPECT_THAT(ctl("check"), HasSubstr("CRITICAL - no connection"));
    end("pid");
    EXPECT_EQ(suite.read("code"), "0\n");
    EXPECT_EQ(shown("\"connected\"", second.port), GetParam() ? 1 : 0);
    EXPECT_EQ(state_file(), "");
}

TEST_F(E2eWatch, UnansweredOrRefusedFirstQuestionEndsOnlyWatchOfOneHost) {
    const std::string nobody = "127.0.0.1:" + std::to_string(free_port());
    EXPECT_THAT(ctl("-H " + nobody + " watch"), EndsWith(nobody + ": no connection: Connection refused\ncode 205\n"));
    shell("printf 'secret\\n' | " SCHEDPASSWD_BINARY " --stdin " + suite.path("data/password"));
    suite.start();
    for (const char* command : {"follow", "watch"}) {  // from this address a login is required
        EXPECT_THAT(ctl("-b 127.0.0.2 "s + command), EndsWith("\ncode 204\n"));
    }
    // With more schedulers than descriptors, an idle connection is closed for the next one.
    EXPECT_EQ(shell(environment() + "ulimit -n 12; timeout -s INT " + limit +
                    " " SCHEDCTL_BINARY " -H $(seq -s , -f 127.0.0.%g 8)"
                    " follow -n 1 | grep -m 8 -c '\"connected'"),
              "8\n");
    const int before = connections();
    run("-b 127.0.0.2 -H 127.0.0.1," + nobody + " watch -n 1");
    await(nobody + ": 20");
    await("disconnected: login refused");
    end("pid");
    EXPECT_LE(connections(), before + 2);  // the next try is in a minute
    EXPECT_EQ(suite.read("code"), "0\n");
}

TEST_F(E2eWatch, SignalEndsAFollowerWhoseReaderStalls) {
    // The wait is for the follower to have blocked SIGTERM, which it reads from a descriptor, and one second more.
    const std::string full = suite.path("full");
    EXPECT_EQ(shell("mkfifo " + full + "; exec 3<>" + full + "; head -c 65536 /dev/zero >&3; " + environment() +
                    SCHEDCTL_BINARY " -H 127.0.0.1:1,127.0.0.1:2 follow >&3 & while kill -0 $! && ! grep -q "
                                    "'SigBlk:.*[4-7c-f]...$' /proc/$!/status; do sleep 0.1; done; sleep 1; "
                                    "kill -WINCH $!; sleep 0.3; kill $! && wait $!; echo $?"),
              "0\n");
}

// A message is shown once: by the process that ends, by the one after it, or by an operator's command.
TEST_F(E2eWatch, EndLosesNoMessage) {
    suite.start();
    const std::string several = "-H 127.0.0.1,127.0.0.1:1 ";
    const struct {
        std::string arguments;
        std::string ends;  // the process that gets the signal
        const char* signal = "TERM";
        std::string after = "status";
    } cases[] = {
        {"watch", "pid"},
        {several + "watch", "pid"},
        {"follow", "pid"},
        {"follow", "reader"},
        {"watch", "reader"},
        {several + "follow", "pid"},
        {"follow", "pid", "KILL"},
        {"watch", "pid", "KILL"},
        {"follow", "reader", "TERM", "follow -n 60"},
        {"follow", "reader", "TERM", "follow -n 1"},
    };
    int number = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments + " ends by SIG" + c.signal + " to " + c.ends);
        run(c.arguments + " -n 60");
        await("confdate");
        std::string texts[2];
        for (std::string& text : texts) {  // they wait at the scheduler for the last answer
            text = "E0101:number " + std::to_string(++number) + ".";
            suite.raise(text);
        }
        EXPECT_EQ(shown("E0101:number " + std::to_string(number)), 0);  // the next question is not due
        end(c.ends, c.signal);
        // A follower writes the messages of an earlier one also while the scheduler is down.
        if (c.after == "follow -n 1") { suite.stop(); }
        std::string all = suite.read("lines");
        for (const std::string& text : texts) {
            EXPECT_TRUE(wait_until([&] {
                if (all.find(text) == std::string::npos) {
                    all += shell(environment() + "timeout -s INT 2 " SCHEDCTL_BINARY " " + c.after);
                }
                return all.find(text) != std::string::npos;
            }));
        }
        all += ctl("status");
        for (const std::string& text : texts) { EXPECT_EQ(occurrences(all, text), 1) << all; }
    }
}

TEST_F(E2eWatch, StoredMessagesAreShownToTheirReadersOnly) {
    suite.start();
    for (int i = 1; i <= 2; ++i) {
        const std::string text = "E0101:of a check " + std::to_string(i);
        suite.raise(text);
        ctl("check");
        run("follow -n 60");
        await("\"connected\"");
        end("pid");
        EXPECT_EQ(shown(text), 0);
        run("watch -n 60");
        await("message " + text);
        await("condition error set");
        end("pid");
        EXPECT_THAT(ctl("status"), Not(HasSubstr(text)));
    }
}

class E2eWatchTerminal : public ClientTest {
protected:
    void SetUp() override {
        setenv("TZ", "XST4:30", 1);  // west of UTC: a wrong sign of the zone shows as hours
        suite.write("config/timer_jobs", "0 3 1 1 * patrol\tstatus\n");
        suite.start();
    }
};

TEST_F(E2eWatchTerminal, ShowsChangesReconnectsAndRestoresTheTerminal) {
    Terminal screen(suite, {SCHEDCTL_BINARY, "watch", "-n", "1"});
    screen.expect("confdate ");
    EXPECT_THAT(screen.expect("\npatrol "), Not(HasSubstr("\x1b[33m")));  // it is no alarm
    suite.event("E0101:fan \x1b[31m 3 stopped\n");
    screen.expect("\x1b[1;31merror ");
    screen.expect("-04:30  ");
    EXPECT_LE(screen.expect("s").size(), 3U);  // its age, in seconds
    EXPECT_THAT(screen.expect("E0101:fan \\x1b[31m 3"), HasSubstr("\x1b[1;31m20"));
    screen.resize(6, 70);
    suite.event("E0103:a\nE0104:b\nE0107:c\n");
    screen.expect("\x1b[33mprevent, diag, conf");
    screen.expect("Messages: 4");
    screen.expect("E0107:c");
    screen.resize(9, 30);
    screen.expect("  Ctr\x1b");  // the heading, cut at the new width
    screen.resize(9, 70);
    for (int i = 0; i < 2; ++i) {
        suite.stop();
        screen.expect("Connection refused; trying again");
        suite.start();
        while (screen.expect("Messages: 4").find("no connection") != std::string::npos) continue;
    }
    screen.press("typed\x1a");  // not shown; Ctrl-Z restores the terminal, and the job goes on here
    EXPECT_EQ(screen.expect("\x1b[?1049l").find("typed"), std::string::npos);
    screen.expect("\x1b[?1049h");
    screen.press("q");
    std::string rest;
    EXPECT_EQ(screen.wait_exit(&rest), 0);
    EXPECT_TRUE(screen.echoes());
    EXPECT_TRUE(in_order(rest, {"\x1b[?1049l", "E0101:fan \\x1b[31m 3 stopped\r\n", "E0103:a\r\n", "E0107:c\r\n"}));
    EXPECT_THAT(ctl("status"), Not(HasSubstr("E01")));
}

// Only one message has room, and what was not drawn is not shown.
TEST_F(E2eWatchTerminal, MessagesThatWereNeverDrawnStayUntilTheEndOfTheView) {
    for (const bool killed : {true, false}) {
        SCOPED_TRACE(killed);
        Terminal screen(suite, {SCHEDCTL_BINARY, "watch", "-n", "1"});
        screen.expect("Messages: 0");
        screen.resize(killed ? 5 : 6, 70);
        screen.get_signal(SIGSTOP);  // so one answer brings them all
        const std::size_t events = suite.events().size();
        suite.event("W0104:a\nW0104:b\nW0104:c\nW0104:d\n");
        suite.await_events(events + 4);
        screen.get_signal(SIGCONT);
        screen.expect("Messages: 4");
        EXPECT_THAT(screen.expect("W0104:d"), HasSubstr("\x1b[33m20"));
        std::string rest;
        if (killed) {
            screen.expect("W0104:d");  // a second drawing: after the first, it left the mailbox
            screen.get_signal(SIGKILL);
            EXPECT_EQ(screen.wait_exit(), 128 + SIGKILL);
            EXPECT_TRUE(wait_until([&] { return (rest += ctl("status")).find("W0104:a") != std::string::npos; }));
            EXPECT_EQ(rest.find("W0104:d"), std::string::npos) << rest;
        } else {
            screen.press("\x03");
            EXPECT_EQ(screen.wait_exit(&rest), 0);
            EXPECT_TRUE(in_order(rest, {"W0104:a\r\n", "W0104:d\r\n"}));
            EXPECT_THAT(ctl("status"), Not(HasSubstr("W0104:")));
        }
    }
}

TEST_F(E2eWatchTerminal, OfSeveralHostsCountsSortsAndFilters) {
    Suite second;
    second.start();
    const std::string a = "127.0.0.1:" + std::to_string(suite.port);
    const std::string b = "127.0.0.1:" + std::to_string(second.port);
    second.event(repeated(130, "W0199:filler\n"));  // more than the scheduler keeps
    second.await_events(130);
    Terminal screen(suite, {SCHEDCTL_BINARY, "-t", "2", "-H", a + "," + b, "watch", "-n", "1"});
    screen.resize(12, 100);
    screen.expect("2 hosts, 1 lost, 1 ok");
    EXPECT_TRUE(in_order(screen.expect("W0199:filler"), {b + "  ok ", "  lost 3  20"}));
    screen.expect(a + "  ok, patrol ");
    second.event("E0101:fan \x1b[31m 3 stopped\n");
    EXPECT_TRUE(
        in_order(screen.expect("E0101:fan \\x1b[31m"), {"2 hosts, 1 error, 1 ok", b + "  error ", "  lost 3  20"}));
    for (int i = 0; i < 2; ++i) {
        kill(suite.scheduler(), SIGSTOP);
        screen.expect("2 hosts, 1 no answer, 1 error");
        EXPECT_TRUE(in_order(screen.expect(b + "  error "), {a + "  no answer ", ", since 20"}));
        kill(suite.scheduler(), SIGCONT);
        screen.expect("2 hosts, 1 error, 1 ok");
        suite.stop();
        screen.expect("2 hosts, 1 down, 1 error");
        EXPECT_TRUE(in_order(screen.expect(b + "  error "), {a + "  down ", ", since 20", ": "}));
        suite.start();
        while (screen.expect("2 hosts, 1 ").find("down") != std::string::npos) continue;
    }
    screen.press("/FAN");
    screen.expect("/FAN_  1 shown");
    screen.press("\x7f\x7f\x7f" + a + "\n");
    screen.expect("/" + a + "  1 shown");
    screen.resize(2, 20);  // the heading and the first host, the others a line further down
    screen.press("\x1b");
    screen.expect(b.substr(0, 20));
    screen.press("\x1b[B\x1b[B");
    screen.expect(a.substr(0, 20));
    screen.press("\x1b[A");
    screen.expect(b.substr(0, 20));
    screen.press("q");
    std::string rest;
    EXPECT_EQ(screen.wait_exit(&rest), 0);
    EXPECT_TRUE(in_order(rest, {"\x1b[?1049l", b + ": 20", " E0101:fan \\x1b[31m 3 stopped\r\n"}));

    Terminal plain(suite, {SCHEDCTL_BINARY, "-H", a + "," + b, "watch", "-n", "1"}, "dumb");
    plain.expect("condition error set\r\n");
    suite.event("E0102:one\n");
    plain.expect(a + ": 20");
    plain.expect("message E0102:one\r\n");
    suite.stop();
    plain.expect(" disconnected: ");
    suite.start();
    EXPECT_THAT(plain.expect(" connected\r\n"), Not(HasSubstr("confdate")));  // only changes are shown
    plain.type("\x03");
    EXPECT_EQ(plain.wait_exit(), 0);
}

}  // namespace
