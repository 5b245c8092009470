#include "e2e/harness.h"

#include <thread>

namespace e2e {

static std::string handed(const std::string& text) { return "DATE;" + text + "\r\n"; }

TEST(Events, PrefixesAndClassification) {
    Suite suite;
    suite.start();
    for (const char* ignored : {"MB;ALL;E0101:x", "ALL;ALL;E0101:x", "all;E0101:x", "ALL;", "", "e0101:x", "X0101:x",
                                "E0101x", "E01011:x", "E010:x", "E01 1:x", "E0101", " E0101:x"})
        suite.event(ignored + "\n"s);
    strings logged;
    std::string waiting;
    for (const auto& [line, message] :
         rows("E0101:fan stopped -> E0101:fan stopped|ALL;MB;E0101:both -> E0101:both|ALL;W0201:one -> W0201:one|"
              "MB;I0000: -> I0000:|D9999:a\tb\r -> D9999:a\tb\r|M1300:\xff\x80 -> M1300:\xff\x80|W0199:x -> W0199:x|"
              "E0100:a\0b -> E0100:a"s)) {  // a NUL ends the text
        suite.event(line + "\n");
        logged.push_back(message);
        waiting += message[0] == 'E' || message[0] == 'W' ? handed(message) : "";
    }
    suite.await_events(logged.size());
    EXPECT_EQ(suite.events(), logged);
    EXPECT_THAT(mask_dates(suite.read("log/event_log")), testing::StartsWith("DATE : E0101:fan stopped\n"));
    Client first = suite.client();  // errors and warnings have waited for it
    Client second = suite.client();
    EXPECT_EQ(suite.status(first), status_answer("error", waiting));
    EXPECT_EQ(suite.status(second), status_answer("error"));
    suite.expect_trace({"event:ignore:\"ALL;E0101:x\"\n", "event:ignore:\"ALL;E0101:x\"\n", "event:ignore:\"\"\n",
                        "event:ignore:\"\"\n", "event:ignore:\" E0101:x\"\n", "event:vgdmsg:\"E0101:both\"\n",
                        "event:vgdmsg:\"D9999:a b\r\"\n", "event:extract from dummy out=0 in=5 lost=0\n"});
}

TEST(Events, LinesAtTheLimits) {
    Suite suite;
    suite.start();
    Client client = suite.client();
    EXPECT_EQ(suite.status(client), status_answer(""));
    const std::string text = "I1000:" + std::string(1994, 'x');
    std::size_t count = 0;
    // The size of a line, and the trace of what the rest of it becomes.
    for (const auto& [size, remains] : rows("500 -> |1022 -> |1023 -> |1024 -> event:ignore:\"\"|"
                                            "1025 -> event:ignore:\"x\"|2000 -> event:ignore:\"xx")) {
        suite.event(text.substr(0, std::stoul(size)) + "\n");
        suite.await_events(++count);
        EXPECT_EQ(suite.status(client), status_answer("", handed(text.substr(0, std::min(std::stoul(size), 1023UL)))));
        suite.await_trace(remains);
    }
    // In the logs a line has at most 511 characters with its end.
    suite.expect_trace({"event:vgdmsg:\"I1000:" + std::string(60, 'x'), "x...\n"});
    const std::string log = suite.read("log/event_log");
    EXPECT_EQ(log.substr(506, 5), "x...\n");
    // A writer that goes away in the middle of a line, and others that go on.
    for (const char* piece : {"E0401:ha", "lf\nE04", "01:whole\n"}) suite.event(piece);
    suite.await_events(8);
    EXPECT_EQ(suite.status(client), status_answer("error", handed("E0401:half") + handed("E0401:whole")));
}

// One message after the other, with what a module shall do then: the rows of the status afterwards, the calls made.
TEST(Events, Effects) {
    Suite suite;
    suite.env["TZ"] = "UTC";
    suite.start();
    Client client = suite.client();
    EXPECT_EQ(suite.status(client), status_answer(""));
    std::size_t count = 0;
    for (const auto& [given, expected] :
         rows("E0018:a -> korvo|W7301:a -> error korvo|I0102:a -> error korvo|E0003:a -> error prevent korvo|"
              "M0004:a -> error prevent conf korvo|D0007:a -> error prevent diag conf korvo|"
              "E0014:a -> error prevent diag conf snap korvo|"
              "E0008:a diag.status=exit 2 -> error prevent diag conf snap korvo,diag status|"
              "E0008:a diag.status=exit 0 -> error prevent conf snap korvo,diag status|"
              "E0211:a parts.status=exit 1 -> prevent conf snap korvo,parts status|"
              "I0011:a parts.status=exit 2 -> error prevent conf snap korvo,parts status|"
              "E0015:a -> error prevent conf korvo|E0005:a devconf.date=echo 2013-02-07T15:45:12+09:00 -> "
              "error prevent korvo,devconf date,confchg,analysis error|"
              "E0005:a -> error prevent korvo,devconf date,analysis error|E0004:a -> error prevent conf korvo|"
              "E0005:a devconf.date=echo 2014-01-01T00:00:00Z; exit 1 -> "
              "error prevent korvo,devconf date,analysis error|E0000:a -> error prevent korvo|"
              "E0009:a -> error prevent korvo|E0016:a -> error prevent korvo|E0199:a -> error prevent "
              "korvo")) {
        const std::string line = given.substr(0, 7);
        const std::size_t equals = given.find('=');
        if (equals != std::string::npos) suite.react(given.substr(8, equals - 8), given.substr(equals + 1));
        const std::string before = suite.calls(3);
        suite.event(line + "\n");
        suite.await_events(++count);
        const std::string kept = line.substr(3, 2) == "11" ? "" : handed(line);
        EXPECT_EQ(suite.status(client), status_answer(expected.substr(0, expected.find(',')), kept)) << given;
        EXPECT_EQ(suite.calls(3), before + expected.substr(std::min(expected.find(','), expected.size()))) << given;
    }
    const std::string dates = client.ask("status");
    EXPECT_THAT(dates, HasSubstr("confdate  2013-02-07T06:45:12+00:00\r\n"));
    EXPECT_THAT(dates, HasSubstr("korvo     1970-01-01T00:00:00+00:00\r\n"));  // raised again, never stamped
    suite.event("E0012:x\nE0017:x\n");
    suite.await_events(count + 2);
    EXPECT_THAT(client.ask("status"), Not(testing::ContainsRegex("confdate  2013|korvo     1970")));
    suite.expect_trace({"devconf date => 2013-02-07T15:45:12+09:00\n"});
}

// Local time of the moment shown, offset of the present moment.
TEST(Events, DatesInTimeZones) {
    for (const std::string zone : {"UTC", "Asia/Tokyo", "America/St_Johns", "Asia/Kathmandu"}) {
        Suite suite;
        suite.env["TZ"] = zone;
        suite.start();
        Client client = suite.client();
        std::size_t count = 0;
        for (const std::string moment : {"2013-02-07T06:45:12Z", "2013-07-01T00:15:12+05:45"}) {
            suite.react("devconf.date", "echo " + moment);
            suite.event("I0005:x\n");
            suite.await_events(++count);
            const std::string local = shell("export TZ=" + zone + "; date +%Y-%m-%dT%H:%M:%S -d " + moment);
            const std::string offset = shell("TZ=" + zone + " date +%:z");
            EXPECT_THAT(client.ask("status"), HasSubstr(local.substr(0, 19) + offset.substr(0, 6) + "\r\n")) << zone;
        }
    }
}

// Thirty-two clients, the last of which holds the module lock until the file "go" is there.
static std::vector<Client> start_with_a_slow_module(Suite& suite) {
    suite.module("slow", "while [ ! -e \"$VGD_temp/go\" ]; do sleep 0.05; done; echo slow >> \"$VGD_temp/calls\"");
    suite.start();
    std::vector<Client> clients = suite.thirty_two();
    clients[31].send("slow\r");
    suite.await_trace("command:\"slow\" \n");
    return clients;
}

TEST(Events, BurstOfSeveralWritersWithThirtyTwoOperators) {
    constexpr int writers = 4;
    constexpr int lines = 2500;
    Suite suite;
    std::vector<Client> clients = start_with_a_slow_module(suite);
    // The event thread waits for the module lock first: what is written meanwhile stays in the pipe.
    suite.event("I0008:waits\n");
    std::vector<std::thread> threads;
    for (int writer = 0; writer < writers; writer++)
        threads.emplace_back([&suite, writer] {
            for (int i = 0; i < lines; i++)
                suite.event("I1000:" + std::to_string(writer) + " " + std::to_string(i) + "\n");
        });
    EXPECT_EQ(suite.events().size(), 0U);
    suite.write("temp/go", "");
    for (std::thread& thread : threads) thread.join();
    suite.await_events(writers * lines + 1);
    const strings events = suite.events();
    int next[writers] = {};
    std::string kept = handed(events.at(0));
    for (std::size_t i = 1; i < events.size(); i++) {
        const int writer = (events[i] + "      ?")[6] - '0';
        ASSERT_TRUE(writer >= 0 && writer < writers) << events[i];
        ASSERT_EQ(events[i], "I1000:" + std::to_string(writer) + " " + std::to_string(next[writer]++));
        kept += i < 127 ? handed(events[i]) : "";
    }
    EXPECT_EQ(clients[31].answer(), over);
    const std::string lost = std::to_string(writers * lines + 1 - 127);
    for (Client& client : clients)
        EXPECT_EQ(suite.status(client),
                  status_answer("", kept + "W0100: message queue overflow, " + lost + " messages were lost.\r\n"));
}

// Whoever waits for the module lock may get it before the end does, but nobody behind it.
TEST(Events, TheEndMessageStopsTheModulesOnceAndLast) {
    Suite suite;
    std::vector<Client> clients = start_with_a_slow_module(suite);
    suite.event("ALL;I0199:stop\nE0101:never read\n");
    suite.await_trace("Info:calling VGDend\n");
    for (std::size_t i = 1; i < 31; i++) clients[i].send("diag\tlate\r");
    suite.write("temp/go", "");
    EXPECT_EQ(suite.wait_exit(), 0);
    EXPECT_THAT(suite.calls(), MatchesRegex("slow(,diag late)*,allmodcall stop"));
    EXPECT_EQ(suite.events(), strings());
    EXPECT_EQ(clients[0].rest(), "");
}

}  // namespace e2e
