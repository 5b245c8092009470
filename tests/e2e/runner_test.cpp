#include "e2e/harness.h"

#include <filesystem>
#include <signal.h>
#include <sys/stat.h>

namespace e2e {

TEST(Runner, OutputAndEnds) {
    Suite suite;
    const std::string text = "0123456789 abcdefghijklmnopqrstuvwxyz, a line of no great length";
    suite.write("data/text", repeated(20000, text + "\n"));
    auto cases = rows(
        "exit 0 -> OVER|exit 3 -> __over__ 3 0\r\n|echo last words; exit 255 -> last words\r\n__over__ 255 0\r\n|"
        "printf 'a\\nb' -> a\r\nb\r\nOVER|printf 'a\\r\\n' -> a\r\r\nOVER|printf '\\n\\n\\n' -> \r\n\r\n\r\nOVER|"
        "printf 'a\\n'; sleep 0.2; printf b -> a\r\nb\r\nOVER|printf a; sleep 0.2; printf '\\n' -> a\r\nOVER|"
        "printf '\\0x\\0\\n\\0\\377\\001\\t' -> \0x\0\r\n\0\377\001\t\r\nOVER|echo to standard error >&2 -> OVER|"
        "echo before; kill -KILL $$ -> before\r\n__over__ 0 9\r\n|kill -TERM $$ -> __over__ 0 15\r\n|"
        "(sleep 0.5; echo late) & echo early -> early\r\nlate\r\nOVER|"  // a descendant keeps standard output
        "printf part; sleep 9 & sleep 600 -> part\r\n__timeout__\r\n|echo a; sleep 600 & -> a\r\n__timeout__\r\n|"
        "setsid sleep 9 & -> __timeout__\r\n"s);  // one that has left the group
    const std::string quit = "cd '" + suite.path("temp") + "'; ulimit -c unlimited; kill -QUIT $$";
    const int quit_byte = system(quit.c_str()) & 0xff;  // with the flag of a core where this machine writes one
    cases.insert(cases.end(),
                 {{quit, "__over__ 0 " + std::to_string(quit_byte) + "\r\n"},
                  {"yes '' 2> /dev/null | head -c 1048576", repeated(1048576, "\r\n") + over},
                  {"cat \"$VGD_data/text\"", repeated(20000, text + "\r\n") + over},
                  {"head -c 16384 /dev/zero | tr '\\0' x; echo", std::string(16384, 'x') + "\r\n" + over}});
    for (std::size_t i = 0; i < cases.size(); i++)
        suite.module("m" + std::to_string(i), cases[i].first,
                     cases[i].second.find("__timeout__") == std::string::npos ? 60 : 1);
    suite.listed("gone gone - 60");
    suite.module("plain", "");
    chmod(suite.path("bin/plain").c_str(), 0644);
    suite.start();
    Client client(suite.port, "127.0.0.1", 4096);  // small, so that large outputs arrive in many writes
    for (std::size_t i = 0; i < cases.size(); i++) {
        const std::string received = client.ask("m" + std::to_string(i));
        EXPECT_TRUE(received == cases[i].second) << cases[i].first << ": " << received.substr(0, 300);
    }
    for (const auto& [name, error] : rows("gone -> 2|plain -> 13"))
        EXPECT_EQ(client.ask(name), "Error:command:exec fails (path=" + suite.path("bin/" + name) + " argv0=" + name +
                                        " errno=" + error + ")\r\n" + refused);
    suite.expect_trace({"command1:\"m0\"(from 127.0.0.1) no.0\n", "command:\"m0\" \n", "command:wait pid=",
                        " status=00000000\n", "command:\"m0\" end. status=0\n", "command:\"m1\" end. status=300\n",
                        "Error:command:timeout or error:path=" + suite.path("bin/m"), " timeout=1 pid=", " hmi_err=0\n",
                        " end. status=9\n"});
}

// What a module finds: descriptors, environment, signal mask, session, with each limit of descriptors.
TEST(Runner, SurroundingsOfTheProgram) {
    for (const unsigned long limit : {40UL, 1024UL, std::stoul(shell("ulimit -H -n"))}) {
        SCOPED_TRACE(limit);
        Suite suite;
        suite.descriptors = limit;
        for (const char* program : {"ls", "cat", "env"}) {
            std::filesystem::create_symlink("/usr/bin/"s + program, suite.path("bin/"s + program));
            suite.listed(program + " "s + program + " - 60");
        }
        suite.module("ids", "echo $$; cut -d' ' -f5-7 /proc/$$/stat");
        suite.start(limit == 40 ? strings{"-D", "-d", "W"} : strings{"-D"});
        std::vector<Client> others;
        for (int i = 0; i < 20; i++) others.push_back(suite.client());
        Client client = suite.client("127.0.0.2");
        // Standard input is closed, so the listing's own descriptor of the directory is number 0.
        EXPECT_THAT(client.ask("ls\t-l\t/proc/self/fd"),
                    MatchesRegex("total 0\r\n[^\n]* 0 -> /proc/[0-9]+/fd\r\n[^\n]* 1 -> pipe:\\[[0-9]+\\]\r\n"
                                 "[^\n]* 2 -> /dev/null\r\n__over__ 0 0\r\n"));
        // Every signal is blocked but INT, QUIT, KILL, TERM, STOP, and two that the thread library may keep.
        const std::string status = client.ask("cat\t/proc/self/status");
        EXPECT_THAT(status, testing::ContainsRegex("SigBlk:\tfffffff[ef][7f]ffbbef9\r\n"));
        EXPECT_THAT(status,
                    testing::ContainsRegex("SigIgn:\t[0-9a-f]{12}[2367abef][0-9a-f]{3}\r\n"));  // ALRM
        const std::string ids = client.ask("ids");  // leader of its group and session, without a terminal
        const std::string pid = ids.substr(0, ids.find('\r'));
        EXPECT_EQ(ids, pid + "\r\n" + pid + " " + pid + " 0\r\n" + over);
        const std::string environment = client.ask("env");
        for (const std::string& entry : {"REMOTEHOST=127.0.0.2\r\n"s, "VGD_bin=" + suite.path("bin") + "\r\n"})
            EXPECT_THAT(environment, HasSubstr(entry));
        for (const char* entry : {"LD_PRELOAD=watchmalloc.so.1\r\n", "MALLOC_DEBUG=WATCH,RW\r\n"})
            EXPECT_EQ(environment.find(entry) != std::string::npos, limit == 40) << entry;
    }
}

TEST(Runner, OneAtATimeForThirtyTwoClients) {
    Suite suite;
    suite.module("turn", "cd \"$VGD_temp\"; echo begin >> turns; sleep 0.02; echo end >> turns; echo \"$1\"");
    suite.start();
    std::vector<Client> clients = suite.thirty_two();
    for (std::size_t i = 0; i < 32; i++) clients[i].send(repeated(2, "turn\t" + std::to_string(i) + "\r"));
    for (std::size_t i = 0; i < 32; i++)
        EXPECT_EQ(clients[i].answer() + clients[i].answer(), repeated(2, std::to_string(i) + "\r\n" + over));
    EXPECT_EQ(suite.read("temp/turns"), repeated(64, "begin\nend\n"));
}

// A client whose lines wait in its socket asks again at once; another one still has the next turn.
TEST(Runner, NextTurnIsThatOfTheClientThatWaits) {
    Suite suite;
    suite.module("flood", "sleep 0.02");
    suite.module("other", "");
    suite.start();
    Client flood = suite.client();
    Client other = suite.client();
    flood.send(repeated(100, "flood\r"));
    suite.await_trace("command:\"flood\" \n");
    std::size_t started = 0;
    for (int round = 0; round < 10; round++) {
        EXPECT_EQ(other.ask("other"), over);
        const std::string trace = suite.trace();
        std::size_t at = trace.find("command1:\"other\"", started);
        started = trace.find("command:\"other\" \n", at);
        int runs = 0;
        while ((at = trace.find("command:\"flood\" \n", at + 1)) < started) runs++;
        EXPECT_LE(runs, 1);
    }
}

}  // namespace e2e
