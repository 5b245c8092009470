#include "e2e/harness.h"

#include <sstream>

namespace e2e {

// A message as the answer to `status` shows it.
static std::string delivered(const std::string& text) { return "DATE;" + text + "\r\n"; }

TEST(E2eEvent, OnlyWholeMessagesAreLoggedAndErrorsAndWarningsWaitForTheFirstOperator) {
    Suite suite;
    suite.start();
    for (const char* ignored :
         {"MB;ALL;E0101:x", "ALL;ALL;E0101:x", "all;E0101:x", "ALL;", "", "e0101:x", "X0101:x", "E0101x", "E01/1:x",
          "E01:1:x", "E01011:x", "E010:x", "E010x:x", "E01 1:x", "E0101", " E0101:x"})
        suite.event(ignored + "\n"s);
    strings logged;
    std::string waiting;
    const struct {
        std::string line, message;
        bool waits;
    } cases[] = {
        {"E0101:fan stopped", "E0101:fan stopped", true},
        {"ALL;MB;E0101:both", "E0101:both", true},
        {"ALL;W0201:one", "W0201:one", true},
        {"MB;I0000:", "I0000:", false},
        {"D9999:a\tb\r", "D9999:a\tb\r", false},
        {"M1300:\xff\x80", "M1300:\xff\x80", false},
        {"W0199:x", "W0199:x", true},
        {"E0100:text up to a NUL\0b"s, "E0100:text up to a NUL", true},
    };
    for (const auto& c : cases) {
        suite.event(c.line + "\n");
        logged.push_back(c.message);
        waiting += c.waits ? delivered(c.message) : "";
    }
    suite.await_events(logged.size());
    EXPECT_EQ(suite.events(), logged);
    EXPECT_THAT(mask_dates(suite.read("log/event_log")), testing::StartsWith("DATE : E0101:fan stopped\n"));
    Client first = suite.client();
    Client second = suite.client();
    EXPECT_EQ(suite.status(first), expected_status("error", waiting));
    EXPECT_EQ(suite.status(second), expected_status("error"));
    suite.expect_trace({"event:ignore:\"ALL;E0101:x\"\n", "event:ignore:\"ALL;E0101:x\"\n", "event:ignore:\"\"\n",
                        "event:ignore:\"\"\n", "event:ignore:\" E0101:x\"\n", "event:vgdmsg:\"E0101:both\"\n",
                        "event:vgdmsg:\"D9999:a b\r\"\n", "event:extract from dummy out=0 in=5 lost=0\n"});
}

TEST(E2eEvent, LongLinesAreCutForOperatorsAndLogsAndPiecesOfALineAreJoined) {
    Suite suite;
    suite.start();
    Client client = suite.client();
    EXPECT_EQ(suite.status(client), expected_status(""));
    const std::string text = "I1000:" + std::string(1994, 'x');
    const struct {
        std::size_t size;
        const char* rest;  // the trace of the rest of the line
    } cases[] = {
        {1023, ""},
        {1024, "event:ignore:\"\""},
        {1025, "event:ignore:\"x\""},
        {2000, "event:ignore:\"xx"},
    };
    for (const auto& [size, rest] : cases) {
        suite.raise(text.substr(0, size));
        EXPECT_EQ(suite.status(client),
                  expected_status("", delivered(text.substr(0, std::min<std::size_t>(size, 1023)))))
            << size;
        suite.await_trace(rest);
    }
    // In the logs a line has at most 511 characters with its newline.
    suite.expect_trace({"event:vgdmsg:\"I1000:" + std::string(60, 'x'), "x...\n"});
    const std::string log = suite.read("log/event_log");
    EXPECT_EQ(log.substr(506, 5), "x...\n");
    // A writer closes the pipe in the middle of a line, and others write the rest.
    for (const char* piece : {"E0401:ha", "lf\nE04", "01:whole\n"}) suite.event(piece);
    suite.await_events(6);
    EXPECT_EQ(suite.status(client), expected_status("error", delivered("E0401:half") + delivered("E0401:whole")));
}

TEST(E2eEvent, EachCodeSetsItsMarksAndRunsItsModules) {
    Suite suite;
    suite.env["TZ"] = "UTC";
    suite.start();
    Client client = suite.client();
    EXPECT_EQ(suite.status(client), expected_status(""));
    EXPECT_THAT(client.ask("status"), Not(HasSubstr("1970")));
    // The messages follow one another. A module's reaction stays until the next one.
    const struct {
        const char* message;
        const char* marks;               // set afterwards
        const char* calls = "";          // of modules
        const char* module = nullptr;    // and argument that get a new reaction before
        const char* reaction = nullptr;  // a shell command
        bool delivered = true;
    } cases[] = {
        {"E0018:a", "korvo"},
        {"W7301:a", "error korvo"},
        {"I0102:a", "error korvo"},
        {"E0003:a", "error prevent korvo"},
        {"M0004:a", "error prevent conf korvo"},
        {"D0007:a", "error prevent diag conf korvo"},
        {"E0014:a", "error prevent diag conf snap korvo"},
        {"E0008:a", "error prevent diag conf snap korvo", ",diag status", "diag.status", "exit 2"},
        {"E0008:a", "error prevent conf snap korvo", ",diag status", "diag.status", "exit 0"},
        {"E0211:a", "prevent conf snap korvo", ",parts status", "parts.status", "exit 1", false},
        {"I0011:a", "error prevent conf snap korvo", ",parts status", "parts.status", "exit 2", false},
        {"E0015:a", "error prevent conf korvo"},
        {"E0005:a", "error prevent korvo", ",devconf date,confchg,analysis error", "devconf.date",
         "echo 2013-02-07T15:45:12+09:00"},
        {"E0005:a", "error prevent korvo", ",devconf date,analysis error"},
        {"E0004:a", "error prevent conf korvo"},
        {"E0005:a", "error prevent korvo", ",devconf date,analysis error", "devconf.date",
         "echo 2014-01-01T00:00:00Z; exit 1"},
        {"E0000:a", "error prevent korvo"},
        {"E0009:a", "error prevent korvo"},
        {"E0016:a", "error prevent korvo"},
        {"E0199:a", "error prevent korvo"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message + (c.module != nullptr ? " with "s + c.module + ": " + c.reaction : ""));
        if (c.module != nullptr) suite.react(c.module, c.reaction);
        const std::string before = suite.calls(3);
        suite.raise(c.message);
        EXPECT_EQ(suite.status(client), expected_status(c.marks, c.delivered ? delivered(c.message) : ""));
        EXPECT_EQ(suite.calls(3), before + c.calls);
    }
    const std::string dates = client.ask("status");
    EXPECT_THAT(dates, HasSubstr("confdate  2013-02-07T06:45:12+00:00\r\n"));
    EXPECT_THAT(dates, HasSubstr("korvo     1970-01-01T00:00:00+00:00\r\n"));  // raised again, never stamped
    suite.event("E0012:x\nE0017:x\n");
    suite.await_events(std::size(cases) + 2);
    EXPECT_THAT(client.ask("status"), Not(testing::ContainsRegex("confdate  2013|korvo     1970")));
    suite.expect_trace({"devconf date => 2013-02-07T15:45:12+09:00\n20"});
}

// One operator after the other asks for the status and quits, both in one packet, while messages arrive.
TEST(E2eEvent, EachMessageReachesExactlyOneOfOperatorsThatAskAndQuitInTurn) {
    Suite suite;
    suite.start();
    std::string raised;
    std::string received;
    const auto ask = [&] {
        Client client = suite.client();
        client.send("status\rquit\r");
        std::istringstream answer(client.rest());
        for (std::string line; std::getline(answer, line);)
            if (const std::size_t text = line.find(";E1000:"); text != line.npos)
                received += line.substr(text + 1, line.size() - text - 2) + "\n";
    };
    for (std::size_t sent = 0; sent < 3000; sent += 100) {  // a queue holds 127
        std::string lines;
        for (std::size_t i = sent; i < sent + 100; i++) lines += "E1000:" + std::to_string(i) + "\n";
        suite.event(lines);
        raised += lines;
        while (suite.events().size() < sent + 100) ask();
        ask();  // what waited
    }
    EXPECT_TRUE(received == raised) << received.size() << " of " << raised.size() << " bytes";
}

// Commands that already wait for the module lock may still run before the end, but none after it.
TEST(E2eEvent, EndMessageStopsTheModulesOnceAndLast) {
    Suite suite;
    suite.module(
        "slow",
        "while [ -e \"$0\" ] && [ ! -e \"$VGD_temp/go\" ]; do sleep 0.05; done; echo slow >> \"$VGD_temp/calls\"");
    suite.start();
    std::vector<Client> clients = suite.thirty_two();
    clients[31].send("slow\r");
    suite.await_trace("command:\"slow\" \n");
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
