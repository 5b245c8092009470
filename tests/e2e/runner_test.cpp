#include "e2e/harness.h"

#include <filesystem>
#include <sys/stat.h>

namespace e2e {

TEST(E2eRunner, OutputArrivesByteForByteAndEachEndIsReported) {
    Suite suite;
    const std::string timeout = "__timeout__\r\n";
    const std::string quit = "cd '" + suite.path("temp") + "'; ulimit -c unlimited; kill -QUIT $$";
    const int quit_byte = system(quit.c_str()) & 0xff;  // with the core flag where this machine writes core files
    const Row<std::string, std::string> cases[] = {
        {"standard error", "echo to standard error >&2", over},
        {"output and exit code", "echo last words; exit 255", "last words\r\n__over__ 255 0\r\n"},
        {"core dump", quit, "__over__ 0 " + std::to_string(quit_byte) + "\r\n"},
        {"descendant holds the output", "(sleep 0.5; echo late) & echo early", "early\r\nlate\r\n" + over},
        {"time-out", "printf part; sleep 9 & sleep 600", "part\r\n" + timeout},
        {"time-out of a descendant", "echo a; sleep 600 &", "a\r\n" + timeout},
        {"time-out of a descendant outside the group", "setsid sleep 9 &", timeout},
    };
    for (std::size_t i = 0; i < std::size(cases); i++)
        suite.module("m" + std::to_string(i), cases[i].given, cases[i].wanted.ends_with(timeout) ? 1 : 60);
    suite.listed("gone gone - 60");
    suite.module("plain", "");
    chmod(suite.path("bin/plain").c_str(), 0644);
    suite.start();
    Client client = suite.client();
    for (std::size_t i = 0; i < std::size(cases); i++)
        EXPECT_EQ(client.ask("m" + std::to_string(i)), cases[i].wanted) << cases[i];
    const Row<std::string, const char*> not_started[] = {{"missing", "gone", "2"}, {"not executable", "plain", "13"}};
    for (const auto& row : not_started) {
        SCOPED_TRACE(row);
        EXPECT_EQ(client.ask(row.given), "Error:command:exec fails (path=" + suite.path("bin/" + row.given) +
                                             " argv0=" + row.given + " errno=" + row.wanted + ")\r\n" + refused);
    }
    suite.expect_trace({"command1:\"m0\"(from 127.0.0.1) no.0\n", "command:\"m0\" \n", "command:wait pid=",
                        " status=00000000\n", "command:\"m0\" end. status=0\n", "command:\"m1\" end. status=ff00\n",
                        "Error:command:timeout or error:path=" + suite.path("bin/m"), " timeout=1 pid=", " hmi_err=0\n",
                        " end. status=9\n"});
}

// With a small, a usual and the highest limit of descriptors.
TEST(E2eRunner, ModuleInheritsNoDescriptorOfOursAndHasItsSignalsSessionAndEnvironment) {
    for (const unsigned long limit : {40UL, 1024UL, std::stoul(shell("ulimit -H -n"))}) {
        SCOPED_TRACE(limit);
        Suite suite;
        suite.descriptors = limit;
        for (const char* program : {"ls", "cat", "env"}) {
            std::filesystem::create_symlink("/usr/bin/"s + program, suite.path("bin/"s + program));
            suite.listed(program + " "s + program + " - 60");
        }
        suite.env["REMOTEHOST"] = "192.0.2.1";  // of our starter; the scheduler's own runs have none
        suite.react("parts.status", "echo \"${REMOTEHOST-none}\" > \"$VGD_temp/remote\"");
        suite.module("ids", "echo $$; cut -d' ' -f5-7 /proc/$$/stat");
        suite.env["REMOTEHOST2"] = "ours";
        suite.start(limit == 40 ? strings{"-D", "-d", "W"} : strings{"-D"});
        std::vector<Client> others;
        for (int i = 0; i < 20; i++) others.push_back(suite.client());
        Client client = suite.client("127.0.0.2");
        // Standard input is closed, so ls opens the directory as descriptor 0.
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
        EXPECT_EQ(suite.read("temp/remote"), "none\n");
        const std::string environment = client.ask("env");
        for (const std::string& entry :
             {"REMOTEHOST=127.0.0.2\r\n"s, "REMOTEHOST2=ours\r\n"s, "VGD_bin=" + suite.path("bin") + "\r\n"})
            EXPECT_THAT(environment, HasSubstr(entry));
        for (const char* entry : {"LD_PRELOAD=watchmalloc.so.1\r\n", "MALLOC_DEBUG=WATCH,RW\r\n"})
            EXPECT_EQ(environment.find(entry) != std::string::npos, limit == 40) << entry;
    }
}

}  // namespace e2e
