// schedctl and schedpasswd in pipes and scripts: output byte for byte, exit codes, JSON, the password file.
#include "e2e/harness.h"
#include "scripted_scheduler.h"

#include <gmock/gmock.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <regex>
#include <sys/stat.h>

using namespace e2e;

namespace {

Outcome ctl(const Suite& suite, const std::string& arguments, const std::string& input = "") {
    return suite.command(SCHEDCTL_BINARY " " + arguments, input);
}

class E2eClientPipe : public testing::Test {
protected:
    void SetUp() override {
        suite.module("odd", R"(case $1 in
exit) exit $2 ;;
signal) kill -$2 $$ ;;
text) printf "$2" ;;
wait) echo begin; while [ -e "$0" ] && [ ! -e "$2" ]; do sleep 0.1; done; echo end ;;
many) seq 300000 ;;
args) shift; printf '<%s>' "$@" ;;
esac
)");
        suite.module("slow", "exec sleep 30", 1);
    }

    Suite suite;
};

TEST_F(E2eClientPipe, ExitCodeAndMessageTellEachFailure) {
    for (const auto& [name, text] : {std::pair("wrong", "wrong"),
                                     {"bad", "db1\ndb2:0"},
                                     {"two", "db1 db2"},
                                     {"digit", "db1 7=x"},
                                     {"empty", "db1 =x"},
                                     {"dash", "db1 a-b=x"}})
        suite.write(name, text + "\n"s);
    const std::string hosts = "--hosts " + suite.path("");
    suite.write("config/common.ini", "[sched]\nallowed_ip_address = 127.0.0.2, 10.0.0.0/8\n");
    ASSERT_EQ(suite.command(SCHEDPASSWD_BINARY " --stdin", "secret\n").code, 0);
    suite.start();
    const struct {
        std::string arguments;
        int code;
        std::string out, err;  // err: a part of it; empty: no message
    } cases[] = {
        {"odd exit 7", 7, "", ""},
        {"odd signal 15", 128 + 15, "", "signal 15"},
        {"slow", 203, "", "timed out"},
        {"modcntl slow off", 0, "", ""},
        {"slow", 201, "", "busy"},
        {"odd args 'a b' '' c 4 5 6 7 8 9 10 11 12 13", 0, "<a b><><c><4><5><6><7><8><9><10><11><12><13>\n", ""},
        {"fly", 202, "", "schedctl: unsupported"},
        {"ipset 10.0.0.5", 0, "", ""},
        {"ipset 300.1.1.1", 1, "", ""},
        {"ipset 11.0.0.1", 205, "", "not allow"},
        {"-b 127.0.0.3 status", 205, "", "may be full, or this address is not allowed"},
        {"-b 127.0.0.3 restart sched", 205, "", "closed"},
        {"-b 198.51.100.1 status", 205, "", "198.51.100.1: Cannot assign"},
        {"-b elsewhere status", 200, "", "schedctl: --bind: "},
        {"restart now", 200, "", "restart needs the word sched"},
        {"lock", 0, "", ""},  // the end of the connection releases it
        {"unlock", 201, "", "does not hold the lock"},
        {"quit", 0, "", ""},
        {"1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16", 200, "", "more than 15 words"},
        {"\"odd$(printf '\\tx')\"", 200, "", "cannot contain a tab"},
        {"\"odd$(printf '\\rparts')\"", 200, "", "a line end"},  // would be a second command
        {"\"odd$(printf '\\nx')\"", 200, "", "a line end"},      // would be dropped
        {"fly $(head -c 16378 /dev/zero | tr '\\0' x)", 202, "", "unsupported"},
        {"fly $(head -c 16379 /dev/zero | tr '\\0' x)", 200, "", "more than 16382 characters"},
        {"--json lock", 200, "", "--json"},
        {"show -b127.0.0.3 ip", 205, "", "closed"},
        {"status --json --timeout=3", 0,
         R"({"conditions":[{"name":"confdate","since":"DATE"}],"messages":[],"lost":0})"
         "\n",
         ""},
        {"status --jsn", 200, "", "--jsn is not an option"},
        {"modcntl watch off -t 3", 1, "Error:modcntl:Invalid module name\n", ""},
        {"parts status -H other", 200, "", "schedctl -- parts status -H other"},
        {"parts --host=other", 200, "", "--host=other is an option"},
        {"parts -p1", 200, "", "-p1 is an option"},
        {"-t 3 -- odd args -H x --json --", 0, "<-H><x><--json><-->\n", ""},
        {"odd args -x -5 -Vx - -- -p", 0, "<-x><-5><-Vx><-><-p>\n", ""},
        {"watch -n 5 status", 200, "", "status"},
        {"status --version", 0, "schedctl " SCHED_VERSION "\n", ""},
        {"-u 'a\tb' status", 200, "", "--user: a word cannot contain a tab"},
        {"-b 127.0.0.2 status", 204, "", "no terminal"},
        {"-b 127.0.0.2 --password-file " + suite.path("wrong") + " status", 204, "", "wrong password"},
        {"-b 127.0.0.2 --password-file / status", 204, "", "/: Is a directory"},
        {"-b 127.0.0.2 --password-file /dev/null status", 204, "", "/dev/null: no password"},
        {"-H db1,db2", 200, "", "everything else works with one host only"},
        {"-H db1,db:x status", 200, "", "\"db:x\" is not name[:port]"},
        {"-H x/db status", 200, "", "\"x/db\" is not name[:port]"},
        {"-H 'db1 db2' status", 200, "", "\"db1 db2\" is not name[:port]"},
        {"-H , status", 200, "", "no host is named"},
        {"-H db1 " + hosts + "wrong status", 200, "", "--host"},
        {"--hosts /dev/null status", 200, "", "/dev/null: no host is named"},
        {hosts + "absent status", 200, "", "absent: No such file"},
        {hosts + "bad status", 200, "", "bad:2: \"db2:0\" is not"},
        {hosts + "two status", 200, "", "two:1: \"db2\" is not name=value"},
        {hosts + "digit status", 200, "", "digit:1: \"7=x\" is not name=value"},
        {hosts + "empty status", 200, "", "empty:1: \"=x\" is not name=value"},
        {hosts + "dash status", 200, "", "dash:1: \"a-b=x\" is not name=value"},
        {hosts + "wrong --json code", 200, "", "--json is for"},
        {hosts + "wrong ipset 10.1.1.1", 200, "", "use it in a session"},
        {"restart sched", 0, "", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments);
        const Outcome got = ctl(suite, c.arguments);
        EXPECT_EQ(got.code, c.code);
        EXPECT_EQ(mask_dates(got.out), c.out);
        EXPECT_TRUE(c.err.empty() ? got.err.empty() : got.err.find(c.err) != std::string::npos) << got.err;
    }
    EXPECT_EQ(suite.wait_exit(), 0);
}

TEST_F(E2eClientPipe, CompletionOffersWhatMayFollow) {
    suite.listed("spare odd yes 0");
    suite.start();
    ctl(suite, "modcntl");
    EXPECT_EQ(shell("stat -c %a " + suite.path("state/schedctl") + "/modules-*"), "600\n");
    for (const std::string line :  // what is typed > what is offered
         {"modcntl odd ''>off\non\n", "modcntl -- spare ''>off\non\n", "sp>spare\tmodule\n",
          "--json sp>spare\tmodule\n", "--host=localhost sp>spare\tmodule\n", "stat>status\tconditions and messages\n",
          "watch ''>", "-- ->", "-t ''>", "wat>watch\tShow the status live until Ctrl-C\n", "show ''>allowed_ip\nip\n",
          "debug ''>hmi\ntimer\n", "debug hmi ''>all\n", "restart ''>sched\n", "-p>-p\tTCP port; else SCHED_PORT\n",
          "-H ''>:host\n", "watch --hosts ''>:file\n", "--hosts=>:file\n",
          "watch --int>--interval\tSeconds between two status requests\n"}) {
        const std::size_t end = line.find('>');
        EXPECT_EQ(ctl(suite, "--complete " + line.substr(0, end)).out, line.substr(end + 1)) << line;
    }
    const std::string offered = "\n" + ctl(suite, "--complete ''").out;
    for (const std::string word : {"status", "modcntl", "debug", "quit", "restart", "lock", "unlock", "show", "hello",
                                   "login", "ipset", "send", "res_data", "res_send"})
        EXPECT_THAT(offered, HasSubstr("\n" + word + "\t"));
}

// Output that looks like the end of an answer, line ends of all kinds, and pieces that split such words.
TEST_F(E2eClientPipe, OutputIsThatOfTheModuleByteForByte) {
    suite.start();
    EXPECT_EQ(ctl(suite, R"(odd text 'a\r\nb\rc\r\r\n\rd\r')").out, "a\r\nb\rc\r\r\n\rd\r\n");
    EXPECT_EQ(ctl(suite, R"(odd text '\n\n\000\001\377\n')").out, "\n\n\0\1\377\n"s);
    // Output appears while the module still runs, and the client ends when its reader ends.
    const std::string command = "SCHED_PORT=" + std::to_string(suite.port) + " " SCHEDCTL_BINARY " ";
    suite.write("hosts", "127.0.0.1\n");
    for (const auto& [go, options, prefix] :
         {std::tuple("go1", ""s, ""s), {"go2", "--hosts " + suite.path("hosts"), "127.0.0.1: "}}) {
        FILE* const pipe = popen((command + options + " odd wait " + suite.path(go)).c_str(), "re");
        char line[32] = "";
        EXPECT_TRUE(std::fgets(line, sizeof line, pipe) != nullptr && line == prefix + "begin\n") << line;
        suite.write(go, "");
        EXPECT_TRUE(std::fgets(line, sizeof line, pipe) != nullptr && line == prefix + "end\n") << line;
        EXPECT_EQ(pclose(pipe), 0);
    }
    EXPECT_EQ(shell(command + "odd many | head -n 1"), "1\n");
}

TEST_F(E2eClientPipe, CommandsFromAPipeRunInOrderAndTheLastGivesTheExitCode) {
    suite.start();
    const Outcome got = ctl(suite, "", "odd args 'a  b' \"c'd\" e\n\nodd 'open\nfly\nipset 300.1.1.1\nodd exit 4\n");
    EXPECT_EQ(got.code, 4);
    EXPECT_EQ(got.out, "<a  b><c'd><e>\n");
    EXPECT_TRUE(in_order(got.err, {"quote", "unsupported", "exit code 4"}));
    EXPECT_TRUE(in_order(ctl(suite, "", "?\nodd args a\n").out, {"conditions and messages", "end the session", "<a>"}));
    for (const char* end : {"quit\nodd exit 4\n", "exit\nodd exit 4\n", "?\n"})
        EXPECT_EQ(ctl(suite, "", "odd exit 4\n"s + end).code, 0) << end;
    EXPECT_EQ(ctl(suite, "", "lock\nfly\nslow\nmodcntl slow off\nslow\nunlock\n").code, 0);  // one connection
    EXPECT_EQ(ctl(suite, "", "odd exit 4\nodd 'open\n").code, 200);
    EXPECT_EQ(ctl(suite, "").code, 0);
    const Outcome nobody = ctl(suite, "-p " + std::to_string(free_port()), "status\nstatus\n");
    EXPECT_EQ(nobody.code, 205);
    EXPECT_THAT(nobody.err, MatchesRegex("schedctl: 127.0.0.1:[0-9]+: no connection[^\n]*\n"));
}

// What a scheduler does seldom: it closes in the middle of an answer or between two requests.
TEST_F(E2eClientPipe, ReportsUnexpectedAnswers) {
    suite.write("secret", "secret\n");
    const std::string login = "--password-file " + suite.path("secret");
    const std::string date = "confdate  2026-11-25T10:00:00+00:00";
    const std::string status = date + "\r\n" + over;
    const std::string error = "error     2026-11-25T10:00:00+00:00\r\n";
    const std::string no_status = "unusable answer: it is no status";
    const std::string message = "2026-11-25T10:00:00+00:00;E0101:late";
    const std::string two = " -H 127.0.0.1,127.1 --parallel 1 status";
    const Exchange refused{"status", "__unauth__ 12345678 abcdefgh\r\n"};
    const struct {
        std::string arguments;
        std::vector<std::vector<Exchange>> script;
        int code;
        std::string shown;  // on both outputs
        std::string input = "";
        std::string state = "state";
    } cases[] = {
        {"",
         {{{"status", message + "\r\n" + status}, {"restart\tsched", ""}}, {{"status", status}, {"status", status}}},
         0,
         message + "\n" + date,
         "restart sched\nstatus\n"},
        {"--json status", {{{"status", message + "\r\n" + date}}}, 205, "\n" + message + "\n", "", "in"},  // a file
        {"ipset 10.0.0.5", {{{"ipset", over}}}, 205, "no connection: "},
        {two,
         {{{"status", "half"}}, {{"status", status}}},
         205,
         "127.0.0.1: half\n127.1: " + date + "\nschedctl: 127.0.0.1: no connection: the scheduler closed it\n"},
        {"status", {{{"status", "whole\r\n" + status}}}, 205, "whole\n" + date + "\nschedctl: " + no_status + "\n"},
        {"status", {{{"status", error + over}}}, 205, "\nschedctl: " + no_status},
        {"check", {{{"status", error + over}}}, 2, "SCHED CRITICAL - " + no_status},
        {"status", {{{"status", std::string(1 << 20, 'x')}}}, 205, ": no connection: the scheduler closed it\n"},
        {"status", {{{"status", std::string((1 << 20) + 1, 'x')}}}, 205, "schedctl: unusable answer: it is too long"},
        {"",
         {{{"modcntl", std::string(600'000, 'x') + "\r\n" + over},
           {"modcntl", std::string(600'000, 'y') + "\r\n" + over}}},
         0,
         "x\nyyy",
         "modcntl\nmodcntl\n"},
        {"-H 127.0.0.1,127.1 --parallel 1 odd",
         {{{"odd", "half"}}, {{"odd", over}}},
         205,
         "127.0.0.1: half\nschedctl: 127.0.0.1: no connection"},
        {login + two, {{refused, {"login", over}, refused}, {{"status", status}}}, 204, "still requires a login\n"},
        {login,
         {{refused, {"login", over}, {"status", status}, {"status", status}, {"restart\tsched", ""}},
          {refused, {"login", over}, {"status", status}}},
         0,
         date + "\n" + date + "\n",
         "status\nrestart sched\nstatus\n"},
        {login + " status", {{refused, {"login", "__unsupported__\r\n"}}}, 204, "does not know the login command\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shown);
        const ScriptedScheduler scheduler(suite.port, c.script);
        const Outcome got =
            suite.command("env XDG_STATE_HOME=" + suite.path(c.state) + " " SCHEDCTL_BINARY " " + c.arguments, c.input);
        EXPECT_EQ(got.code, c.code);
        EXPECT_THAT(got.out + got.err, HasSubstr(c.shown));
    }
}

// The socket must not get the number of a closed standard descriptor: output would go to the scheduler as commands.
TEST_F(E2eClientPipe, OutputThatCannotBeWrittenIsReported) {
    ASSERT_EQ(suite.command(SCHEDPASSWD_BINARY " --stdin", "secret\n").code, 0);
    suite.start();
    const std::string inject = SCHEDCTL_BINARY R"( odd text "parts\tclear\rx\n")";
    // A client that waited for one more answer would need a second. With a sanitizer, its end may take as long.
    const std::string soon = std::string_view(SCHED_SANITIZE).empty() ? "0.9 " : "9 ";
    const struct {
        std::string command;
        int code;
        std::string err;
    } cases[] = {
        {inject + " >&-", 200, "schedctl: cannot write: "},
        {inject + " >&- 2>&-", 200, ""},
        {SCHEDCTL_BINARY " odd exit 3 <&- >&- 2>&-", 3, ""},
        {"[ \"$(" SCHEDCTL_BINARY " odd many | { sleep 1; cksum; })\" = \"$(seq 300000 | cksum)\" ]", 0, ""},
        {"for i in $(seq 20); do timeout -s KILL " + soon + SCHEDCTL_BINARY " odd exit && exit; done; exit 1", 0, ""},
        {SCHEDCTL_BINARY " status >/dev/full", 200, "schedctl: cannot write: "},
        {SCHEDCTL_BINARY " watch >/dev/full", 200, "schedctl: cannot write: "},
        {SCHEDCTL_BINARY " watch --json >/dev/full", 200, "schedctl: cannot write: "},
        {SCHEDCTL_BINARY " --help >/dev/full", 200, "schedctl: cannot write: "},
        {SCHEDPASSWD_BINARY " --version >&-", 200, "schedpasswd: cannot write: "},
        {SCHEDPASSWD_BINARY " --stdin --check >/dev/full", 200, "schedpasswd: cannot write: "},
    };
    for (const auto& c : cases) {
        const Outcome got = suite.command("sh -c '" + c.command + "'", "secret\n");
        ASSERT_EQ(got.code, c.code) << c.command;
        EXPECT_THAT(got.err, StartsWith(c.err)) << c.command;
    }
    EXPECT_EQ(ctl(suite, "parts status").code, 0);
    EXPECT_EQ(suite.calls(), "parts status");
    // Nobody reads the outputs, whose pipe is full: a signal ends the wait. The scheduler has answered when it comes.
    const std::string blocked = "cd " + suite.path("") + R"sh(
        { head -c 65536 /dev/zero
          for use in "INT fly" "TERM fly" "HUP fly" "INT odd many" "TERM odd many"; do
              { env --default-signal )sh" SCHEDCTL_BINARY R"sh( ${use#* } & until [ -e go ]; do sleep 0.1; done
                kill -${use%% *} $!; wait $!; echo $use $? >>ended; } &
          done; wait; } 2>&1 | {
          until [ "$(grep -c unsupported..fly stdout)" = 3 ]; do sleep 0.1; done; sleep 2; : >go
          until [ "$(cat ended | wc -l)" = 5 ]; do sleep 0.1; done; LC_ALL=C sort ended; })sh";
    EXPECT_EQ(suite.command("sh -c '" + blocked + "'").out,
              "HUP fly 202\nINT fly 202\nINT odd many 130\nTERM fly 202\nTERM odd many 143\n");
}

TEST_F(E2eClientPipe, JsonHasEveryFieldAndIsValidForAnyText) {
    suite.listed("shown odd yes 0");
    suite.listed("spare odd yes 0");
    suite.write("config/timer_jobs", "0,59,60 3 1,31 2,12 * diag\tsay \"x\"\n62 23 * * 0,6 parts\n");
    suite.write("config/common.ini", "[sched]\nallowed_ip_address = 10.0.0.0/8, 127.0.0.9\n");
    suite.start();
    suite.event("E0101:a \"quoted\" \xff text\n");
    for (int i = 1; i < 130; i++) suite.event("W0199:filler\n");
    ASSERT_TRUE(wait_until([&] { return suite.events().size() == 130; }));
    const Outcome status = ctl(suite, "--json status again");  // the scheduler ignores further words
    EXPECT_EQ(status.code, 0) << status.err;
    const auto report = nlohmann::json::parse(status.out);
    EXPECT_EQ(mask_dates(report["conditions"].dump()),
              R"([{"name":"confdate","since":"DATE"},{"name":"error","since":"DATE"}])");
    EXPECT_EQ(report["messages"].size(), 127U);
    EXPECT_EQ(report["messages"][0]["text"], "E0101:a \"quoted\" \xEF\xBF\xBD text");
    EXPECT_EQ(report["lost"], 3);
    EXPECT_THAT(ctl(suite, "--json status").out, HasSubstr(R"("messages":[])"));

    const struct {
        std::string arguments, out;
        int code;
    } cases[] = {
        {"--json modcntl spare off", R"({"module":"spare","on":false})", 0},
        {"modcntl --json", R"({"modules":[{"name":"shown","on":true},{"name":"spare","on":false}]})", 0},
        {"modcntl fly --json", R"({"error":"Usage: modcntl module on/off"})", 1},
        {"debug timer --json",
         R"({"jobs":[{"command":"diag\tsay \"x\"","minutes":[0,59],"hours":[3],"days":[1,31],)"
         R"("months":[2,12],"weekdays":[]},{"command":"parts","minutes":[],"hours":[23],"days":[],)"
         R"("months":[1,2,3,4,5,6,7,8,9,10,11,12],"weekdays":[0,6]}]})",
         0},
        {"show allowed_ip --json",
         R"({"allowed":[{"address":"10.0.0.0","prefix":8},{"address":"127.0.0.9","prefix":32}]})", 0},
    };
    for (const auto& c : cases) {
        const Outcome got = ctl(suite, c.arguments);
        EXPECT_EQ(got.out, c.out + "\n") << c.arguments << got.err;
        EXPECT_EQ(got.code, c.code) << c.arguments;
    }

    Client holder = suite.client("127.0.0.9");
    holder.ask("hello\ta user=b login=c");
    ASSERT_EQ(holder.ask("lock"), "__over__ 0 0\r\n");
    const std::string held = R"({"ip":"127.0.0.9","user":"a user=b login=","login":"DATE","locked":true})";
    const std::string mine = R"({"ip":"127.0.0.1","user":"me","login":"DATE","locked":false})";
    const std::regex date("[-0-9]{10}T[:0-9]{8}");
    std::string shown;            // the scheduler cuts the name of a user
    EXPECT_TRUE(wait_until([&] {  // until the connection of the earlier command has ended
        shown =
            std::regex_replace(suite.command("env SCHED_USER=me " SCHEDCTL_BINARY " show ip --json").out, date, "DATE");
        return shown == "{\"connections\":[" + held + "," + mine + "]}\n" ||
               shown == "{\"connections\":[" + mine + "," + held + "]}\n";
    })) << shown;
}

// The disk has room for the reserve or for the messages, but not for both. At the end it has none.
TEST_F(E2eClientPipe, FullDiskTakesTheRoomThatWasReserved) {
    const std::string inside = "env S=" + suite.path("state") +
                               " unshare --user --map-root-user --mount sh -c 'mkdir -p $S && "
                               "mount -t tmpfs -o size=400k none $S && head -c 240000 /dev/zero >$S/filler && ";
    if (suite.command(inside + "echo made'").out != "made\n") { GTEST_SKIP() << "no namespaces here"; }
    suite.start();
    for (int i = 0; i < 100; ++i) suite.raise("E0101:" + std::string(1000, 'x'));
    const char* const uses =
        SCHEDCTL_BINARY " check; " SCHEDCTL_BINARY " status; cat /dev/zero >$S/rest; " SCHEDCTL_BINARY " check'";
    const Outcome got = suite.command(inside + uses);
    EXPECT_EQ(occurrences(got.out, "E0101:"), 101);  // the first check names one
    EXPECT_THAT(got.out, EndsWith("No space left on device\n"));
}

TEST_F(E2eClientPipe, PasswordFileIsWrittenWholeAndOnlyItsPasswordLogsIn) {
    const std::string file = suite.path("data/password");
    const uid_t owner = geteuid() == 0 ? 12345 : geteuid();
    EXPECT_EQ(chown(suite.path("data").c_str(), owner, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(suite.command(SCHEDPASSWD_BINARY " --stdin", " s\xc3\xa4lz\t\r\n").code, 0);
    const std::string first = suite.read("data/password");
    ASSERT_THAT(first, testing::MatchesRegex("[0-9a-f]{64} [0-9A-Za-z]{8}\n"));
    EXPECT_EQ(first.substr(0, 64), sha256_hex(first.substr(65, 8) + " s\xc3\xa4lz\t"));
    struct stat info {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0600U);
    EXPECT_EQ(info.st_uid, owner);  // of the directory, although root wrote the file

    const struct {
        std::string arguments;
        std::string input;
        int code;
    } cases[] = {{"--check --stdin", " s\xc3\xa4lz\t\n", 0},
                 {"--check --stdin", "s\xc3\xa4lz\n", 1},
                 {"--check --stdin", "", 2},
                 {"--check --stdin", std::string(512, 'x') + "\r\n", 1},
                 {"--check --stdin", std::string(513, 'x') + "\n", 2},  // longer than can be typed
                 {"--check --stdin " + suite.path("config/vgd_modules"), "x\n", 2},
                 {"--check --stdin " + suite.path("cut"), "x\n", 2},  // its last letters are missing
                 {"--stdin", "\n", 2},
                 {"", "x\n", 2},  // no terminal
                 {"--stdin " + suite.path("no/where"), "x\n", 2},
                 {"--stdin " + suite.path("fifo"), "x\n", 2},
                 {"--stdin " + suite.path("link"), "x\n", 2},                        // a symbolic link is not replaced,
                 {"--check --stdin " + suite.path("link"), " s\xc3\xa4lz\t\n", 0}};  // but read
    shell("ln -s " + file + " " + suite.path("link") + "; mkfifo " + suite.path("fifo") + "; head -c 70 " + file +
          " >" + suite.path("cut"));
    for (const auto& c : cases) {
        const Outcome got = suite.command(SCHEDPASSWD_BINARY " " + c.arguments, c.input);
        EXPECT_EQ(got.code, c.code) << c.arguments;
        EXPECT_THAT(got.err,
                    c.code == 2 ? MatchesRegex("schedpasswd: .*[^:]: [^:]+\n|schedpasswd: [^:]*\n") : MatchesRegex(""))
            << c.arguments;
        EXPECT_EQ(got.out, c.code == 2 ? "" : c.code == 1 ? "The password is wrong.\n" : "The password is right.\n");
    }
    EXPECT_EQ(suite.command(SCHEDPASSWD_BINARY " --check --stdin").err, "schedpasswd: standard input: no password\n");
    // A full disk: the old file stays, since without one no login is required.
    EXPECT_EQ(suite.command("sh -c \"trap '' XFSZ; ulimit -f 0; " SCHEDPASSWD_BINARY " --stdin\"", "x\n").code, 2);
    EXPECT_EQ(suite.read("data/password"), first);
    EXPECT_EQ(suite.command(SCHEDPASSWD_BINARY " -V").out, "schedpasswd " SCHED_VERSION "\n");
    EXPECT_EQ(shell("ls " + suite.path("data")), "password\n");

    suite.start();
    suite.write("secret", " s\xc3\xa4lz\t\r\nsecond line\n");
    const std::string options = "-b 127.0.0.2 -u otto --password-file " + suite.path("secret");
    EXPECT_EQ(ctl(suite, options + " show ip").out.substr(0, 27), "ip=127.0.0.2 user=otto logi");
}

}  // namespace
