// Faults in the daemon's environment. Each fault hits a running daemon and checks what still works; afterwards operators
// are served as before, and no process or descriptor has leaked.
#include "e2e/harness.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>

namespace e2e {
namespace {

namespace fs = std::filesystem;

void nothing(Suite& /*suite*/) {}

struct Fault {
    const char* name;
    void (*strike)(Suite& suite);
    const char* script = "";                  // of the modules "rogue", with a time-out of 1 s, and "patient", 60 s
    void (*arrange)(Suite& suite) = nothing;  // before the start
};

void PrintTo(const Fault& fault, std::ostream* out) { *out << fault.name; }

void overruns(Suite& suite) {
    EXPECT_THAT(suite.client().ask("rogue"), EndsWith("__timeout__\r\n"));
    EXPECT_TRUE(wait_until([&] {
        return shell("for p in $(cat " + suite.path("temp/pids") + "); do grep -s '^State:.[^Z]' /proc/$p/status; done")
            .empty();
    })) << "a process of the module is still alive";
}

std::string threads(const Suite& suite) { return of_process(suite.pid, "ls task | wc -l"); }

void knock_at_once(Suite& suite) {
    const std::string idle = threads(suite);
    std::vector<Client> clients;
    for (int i = 0; i < 100; i++) clients.push_back(suite.client());
    for (std::size_t i = 0; i < clients.size(); i++)  // the first 32 are served, the others disconnected
        EXPECT_EQ(i < 32 ? suite.status(clients[i]) : clients[i].rest(), i < 32 ? expected_status("") : "");
    clients.clear();
    EXPECT_TRUE(wait_until([&] { return threads(suite) == idle; }));  // else all 32 places may still be taken
}

// Unread bytes of clients that have left must not hold their connections: bytes without an end of line, and lines that
// are refused before the login.
void flood_and_leave(Suite& suite) {
    const std::string idle = threads(suite);
    std::vector<Client> clients = suite.thirty_two();
    const std::string nuls(4 << 20, '\0');
    for (const Client& client : clients) client.send(nuls);
    clients.clear();
    EXPECT_TRUE(wait_until([&] { return threads(suite) == idle; }, 10s));
    suite.client("127.0.0.2").send(std::string(1 << 20, '\r'));
    EXPECT_TRUE(wait_until([&] { return threads(suite) == idle; }, 10s));
}

// The process is stopped and continued while it waits in a write to the client: no byte is lost.
void stop_and_continue(Suite& suite) {
    for (int round = 0; round < 4; round++) {  // a write that waits with nothing written yet loses nothing anyway
        Client client(suite.port, "127.0.0.1", 4096);
        client.send("patient\r");
        std::this_thread::sleep_for(300ms);
        send_signal(suite.pid, SIGSTOP);
        std::this_thread::sleep_for(50ms);
        send_signal(suite.pid, SIGCONT);
        EXPECT_TRUE(client.answer() == repeated(3'000'000, "\r\n") + over);
    }
}

// A pipe that replaces the old one has no reader, so opening it for writing fails; the old one is still read.
void remake_pipe(Suite& suite) {
    const unique_fd held(open(suite.path("pipe").c_str(), O_WRONLY | O_CLOEXEC));
    fs::remove(suite.path("pipe"));
    EXPECT_EQ(mkfifo(suite.path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(write(held.get(), "E0103:old pipe\n", 15), 15);
    suite.await_events(1);
    EXPECT_EQ(open(suite.path("pipe").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
    EXPECT_EQ(errno, ENXIO);
}

void use_all_descriptors(Suite& suite) {
    std::vector<Client> clients;
    for (int i = 0; i < 20; i++) clients.push_back(suite.client());
    suite.await_trace("accept failed. errno=24\n");
    EXPECT_EQ(suite.status(clients[0]), expected_status(""));
    clients[0].send("parts\tstatus\r");
    suite.await_trace("Error:command:pipe fail(errno=24)\n");
    EXPECT_EQ(suite.status(clients[0]), expected_status(""));  // and no answer for the module that was not started
    clients.erase(clients.begin(), clients.end() - 5);
    for (Client& waiting : clients) EXPECT_EQ(waiting.ask("nosuch"), unsupported);
    // A module needs three descriptors, so wait until the other connections have ended.
    EXPECT_TRUE(wait_until([&] { return std::stoi(of_process(suite.pid, "ls fd | wc -l")) < 13; }));
    for (Client& waiting : clients) EXPECT_EQ(waiting.ask("parts\tstatus"), over);
    EXPECT_LT(occurrences(suite.trace(), "accept failed. errno=24\n"), 100);  // one line a second, no busy loop
}

// The process limit does not hold for root, so the daemon runs as a user that has no other process.
std::string as_other_user() {
    const std::string id = std::to_string(100'000 + getpid());
    return "setpriv --reuid=" + id + " --regid=" + id +
           " --clear-groups --inh-caps=+dac_override --ambient-caps=+dac_override ";
}

std::string shell_as_other_user(const std::string& command) { return shell(as_other_user() + command + " 2>&1"); }

void own_user(Suite& suite) {
    suite.wrapper = {"sh", "-c", "exec " + as_other_user() + "\"$@\"", "sh"};
    if (shell_as_other_user("echo permitted") != "permitted\n")
        GTEST_SKIP() << "running the daemon as another user is not permitted";
}

void refuse_processes(Suite& suite) {
    const std::string limit = "prlimit --pid " + std::to_string(suite.pid) + " --nproc=";
    Client client = suite.client();
    EXPECT_EQ(suite.status(client), expected_status(""));
    EXPECT_EQ(shell_as_other_user(limit + "0:"), "");
    client.send("parts\tstatus\r");
    suite.await_trace("Error:command:fork fails (errno=11)\n");
    EXPECT_EQ(suite.status(client), expected_status(""));  // and no answer for the module that was not started
    EXPECT_EQ(client.ask("quit"), goodbye);
    suite.await_trace(" is gone.\n");
    suite.raise("E0103:waits for an operator");
    EXPECT_EQ(suite.client().rest(), "");
    suite.await_trace("Error:comm:thread create fails.(11)");
    EXPECT_EQ(shell_as_other_user(limit + "500:"), "");
    EXPECT_THAT(suite.status(client = suite.client()), HasSubstr("DATE;E0103:waits for an operator\r\n"));
    Suite supervised;  // it cannot start its scheduler
    supervised.wrapper = {"sh", "-c", "exec " + as_other_user() + "prlimit --nproc=0: \"$@\"", "sh"};
    supervised.env["ASAN_OPTIONS"] += ":detect_leaks=0";  // the search for leaks needs a process
    EXPECT_EQ(supervised.run({"-N", "0", "-p", std::to_string(supervised.port)}), 1);
    supervised.expect_trace({"Error: fork failed. errno=11\n"});
}

const Fault faults[] = {
    {"ModuleIgnoresSignalsAndSoDoItsChildren", overruns,
     "trap '' HUP INT TERM ALRM\n"
     "for i in 1 2 3; do (sleep 600 & echo $! >> \"$VGD_temp/pids\"; wait) & done\nwait"},
    {"ModuleWritesForEver", overruns, "while :; do echo for ever and ever; done"},
    {"HundredClientsAtOnce", knock_at_once},
    {"ClientsFloodAndLeave", flood_and_leave, "",
     [](Suite& suite) { suite.write("data/password", std::string(64, 'h') + " saltSALT"); }},
    {"StoppedAndContinuedInAWrite", stop_and_continue, "head -c 3000000 /dev/zero | tr '\\0' '\\n'"},
    {"EventPipeIsRemade", remake_pipe},
    {"NoDescriptorIsLeft", use_all_descriptors, "", [](Suite& suite) { suite.descriptors = 16; }},
    {"NoProcessCanBeStarted", refuse_processes, "", own_user},
};

class E2eFaults : public testing::TestWithParam<Fault> {};

TEST_P(E2eFaults, ServesOn) {
    Suite suite;
    suite.module("rogue", "echo $$ >> \"$VGD_temp/pids\"\n"s + GetParam().script, 1);
    suite.listed("patient rogue - 60");
    GetParam().arrange(suite);
    if (IsSkipped()) return;
    suite.start();
    const std::string descriptors = of_process(suite.pid, "ls fd | wc -l");
    GetParam().strike(suite);
    {
        Client client = suite.client();
        EXPECT_EQ(client.ask("parts\tstatus"), over);
        EXPECT_THAT(client.ask("status"), EndsWith(over));
    }
    EXPECT_TRUE(wait_until([&] { return of_process(suite.pid, "ls fd | wc -l") == descriptors; }));
    EXPECT_EQ(of_process(suite.pid, "cat task/*/children"), "");
}

INSTANTIATE_TEST_SUITE_P(All, E2eFaults, testing::ValuesIn(faults));

// The daemon's clock runs twenty times as fast. It is set back by an hour less three seconds, so that the sleep ends three
// seconds after a full minute that comes a second time. Then it is set forward by an hour.
TEST(E2eClock, SetBackAndForwardNoMinuteRunsTwiceOrIsSkipped) {
    Suite suite;
    suite.fake_clock(20);
    suite.write("config/timer_jobs", "* * * * * parts\ttick\n");
    suite.start();
    std::vector<long> minutes;
    const auto ran = [&](std::size_t count) {
        return wait_until([&] {
            minutes.clear();
            const std::string text = suite.trace();
            const std::string run = "timer:run command:job=0,\"parts tick\" for ";
            for (std::size_t at = 0; (at = text.find(run, at)) != text.npos; at += run.size())
                minutes.push_back(std::atol(&text[at + run.size()]) / 60);
            return minutes.size() >= count;
        });
    };
    for (const int offset : {-3597, 3, -27}) {
        EXPECT_TRUE(ran(minutes.size() + (offset == 3 ? 2 : 1)));
        std::this_thread::sleep_for(700ms);  // the loop sleeps by then, for at most three seconds
        suite.set_clock(offset);
    }
    EXPECT_TRUE(ran(minutes.size() + 2));
    std::vector<long> steps;
    for (std::size_t i = 1; i < minutes.size(); i++)
        if (const long step = minutes[i] - minutes[i - 1]; step != 1) steps.push_back(step);
    EXPECT_THAT(steps, testing::ElementsAre(-59, 61)) << testing::PrintToString(minutes);
}

// The pauses between the starts take three milliseconds.
TEST(E2eClock, SupervisorGivesUpAfterAHundredStarts) {
    Suite suite;
    suite.fake_clock(1000);
    suite.write("bin/allmodcall", "#!/bin/sh\nkill -9 $PPID\n");
    EXPECT_EQ(suite.run({"-p", std::to_string(suite.port), "-N", "0"}, 4 * patience), 1);
    EXPECT_EQ(
        shell("cat " + suite.path("log/sched_log") + "* | grep -c 'alive_check:waitpid(pid=[0-9]*) returns 0x9('"),
        "100\n");
    EXPECT_TRUE(suite.traced("alive_check:giveup to start sched, too many retries(max=100)\n"));
}

}  // namespace
}  // namespace e2e
