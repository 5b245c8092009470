#include "e2e/harness.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <regex>
#include <sys/syscall.h>

namespace e2e {

TEST(E2eConnection, QuitClosesOnlyItsOwnConnectionAndWithoutAReset) {
    Suite suite;
    suite.start();
    const auto mapped = [&] { return std::stoi(of_process(suite.pid, "wc -l <maps")); };
    int stacks = 0;
    for (int round = 0; round < 40 && !testing::Test::HasFailure(); round++) {
        if (round == 5) stacks = mapped();
        Client leaving = suite.client();
        leaving.send("quit\r\n" + std::string(20'000, 'x'));  // unread bytes must not turn the close into a reset
        Client coming = suite.client();
        EXPECT_EQ(leaving.rest(), goodbye);
        EXPECT_EQ(coming.ask("nosuch"), unsupported);
    }
    suite.expect_trace({"Info:hmi(127.0.0.1:", ") is coming\n", " is spawned for hmi(127.0.0.1)\n",
                        "close the HMI(127.0.0.1) by quit command.\n", "hmi(127.0.0.1) is gone.\n"});
    EXPECT_FALSE(suite.traced("Error:comm:shutdown"));
    // A thread that ends leaves no stack: 70 threads would leave two mappings each. Sanitizers map some of their own.
    EXPECT_LT(mapped(), stacks + 80);
}

// Without TCP_NODELAY every second line of an answer waits 40 ms for an acknowledgement, and what is corked waits 200 ms;
// without keep-alive of two minutes the operator of a dead host keeps its place.
TEST(E2eConnection, SocketsOfOperatorsSendAtOnceAndFindDeadHosts) {
    Suite suite;
    suite.start();
    Client client = suite.client();
    EXPECT_EQ(suite.status(client), expected_status(""));
    const unique_fd daemon(static_cast<int>(syscall(SYS_pidfd_open, suite.pid, 0)));
    int connections = 0;
    for (int number = 3; number < 64; number++) {
        const unique_fd socket(static_cast<int>(syscall(SYS_pidfd_getfd, daemon.get(), number, 0)));
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        if (!socket || getpeername(socket.get(), reinterpret_cast<sockaddr*>(&peer), &size) != 0) continue;
        connections++;
        const struct {
            int level, option, value;
        } options[] = {
            {IPPROTO_TCP, TCP_NODELAY, 1},      {IPPROTO_TCP, TCP_CORK, 0},       {SOL_SOCKET, SO_KEEPALIVE, 1},
            {IPPROTO_TCP, TCP_KEEPIDLE, 60},    {IPPROTO_TCP, TCP_KEEPINTVL, 15}, {IPPROTO_TCP, TCP_KEEPCNT, 4},
            {IPPROTO_TCP, TCP_USER_TIMEOUT, 0},  // it would end a client that does not read for a while
        };
        for (const auto& wanted : options) {
            int value = -1;
            size = sizeof value;
            EXPECT_EQ(getsockopt(socket.get(), wanted.level, wanted.option, &value, &size), 0);
            EXPECT_EQ(value, wanted.value) << wanted.option;
        }
    }
    EXPECT_EQ(connections, 1);
}

// It may have sent its lines without waiting for answers. But it may have left very many.
TEST(E2eConnection, ClientThatIsGoneIsServedForAHundredLinesOrTenSeconds) {
    Suite suite;
    suite.hurry();
    suite.module("slow", "sleep 3.5");
    suite.write("data/password", std::string(64, 'h') + " saltSALT");
    suite.start();
    const milliseconds ten_seconds(suite.env.count("FAST_MONOTONIC") != 0 ? 2500 : 10'000);
    const struct {
        const char* line;
        const char* source;
        int sent;
        const char* traced;  // for each line that is carried out
        int carried_out;     // at most, after the first answer that failed; fewer if ten seconds are over; -1: all were
    } cases[] = {
        {"few", "127.0.0.1", 40, "Warning:comm:unsupported(\"few\")\n", -1},
        {"refused", "127.0.0.2", 40, "auth required (command=refused, hmi=127.0.0.2)\n", -1},
        {"many", "127.0.0.3", 1000, "auth required (command=many, hmi=127.0.0.3)\n", 100},
        {"hello\tmany", "127.0.0.1", 1000, "Info:hello login:many\n", 100},
        {"slow", "127.0.0.1", 1000, "command:\"slow\" \n", 3},
    };
    const std::regex dropped(
        R"(Warning:comm:hmi\(127\.0\.0\.\d\) is gone, (\d+) lines carried out after it, the rest dropped\n)");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const std::size_t before = suite.out().size();
        const std::string gone = "hmi("s + c.source + ") is gone";
        Client client = suite.client(c.source);
        client.send(repeated(c.sent, c.line + "\r"s));
        const auto left = std::chrono::steady_clock::now();
        client.reset();
        EXPECT_TRUE(wait_until([&] { return suite.out().find(gone + ".\n", before) != std::string::npos; }));
        const bool ten_seconds_over = std::chrono::steady_clock::now() - left >= ten_seconds;
        const std::string trace = suite.out().substr(before);
        const int lines = occurrences(trace, c.traced);
        std::smatch match;
        const int carried_out = std::regex_search(trace, match, dropped) ? std::stoi(match[1]) : -1;
        EXPECT_TRUE(carried_out == c.carried_out ||
                    (ten_seconds_over && carried_out > 0 && carried_out < c.carried_out))
            << trace;
        EXPECT_TRUE(carried_out < 0 ? lines == c.sent : lines > carried_out && lines < 900) << lines;
    }
}

// Commands that run after a module command, and the marks that they set and clear.
TEST(E2eConnection, FollowUpCommandsDependOnThePlatformAndTheMarks) {
    for (const std::string platform : {"KT", "ZW", "kt", "KTX", ""}) {
        SCOPED_TRACE(platform);
        const bool prognosis = platform == "KT" || platform == "ZW";
        Suite suite;
        suite.env["VGD_PLATFORM"] = platform;
        suite.react("parts.status", "exit 2");
        suite.react("prognosis.prevstatus", "exit 2");
        suite.react("diag.status", "exit 1");
        suite.start();
        Client client = suite.client();
        EXPECT_EQ(client.ask("parts\tclear"), over);  // the fault persists: the mark stays
        EXPECT_EQ(suite.status(client), expected_status(prognosis ? "error prevent" : "error"));
        suite.react("parts.status", "");
        for (int round = 0; round < 2; round++)  // the second time no mark is set and no command follows
            EXPECT_EQ(client.ask({"parts\tclear\tall", "prognosis\tprevdel"}), over + over);
        EXPECT_EQ(suite.status(client), expected_status(""));
        EXPECT_EQ(suite.calls(1),
                  "allmodcall start,parts status,"s + (prognosis ? "prognosis prevstatus," : "") +
                      "diag status,parts clear,parts status,parts clear all,parts status,prognosis prevdel," +
                      (prognosis ? "parts prevstatus," : "") + "parts clear all,prognosis prevdel");
    }
}

}  // namespace e2e
