#include "e2e/harness.h"

#include <sys/stat.h>

namespace e2e {

namespace {

// Waits until the supervisor has started the next scheduler.
bool next_scheduler_accepts(const Suite& suite, pid_t killed) {
    return wait_until([&] { return suite.scheduler() != killed && suite.scheduler() > 0; }) && wait_until([&] {
               const std::string started = "Info:sched:started(pid=" + std::to_string(suite.scheduler()) + ")";
               return static_cast<bool>(in_order(suite.trace(), {started, "Info:sched:accepting socket"}));
           });
}

}  // namespace

TEST(E2eSupervisor, DetachesTheSchedulerAndStartsItAgainCleanAfterItsDeath) {
    Suite suite;
    umask(022);
    suite.start({});
    pid_t scheduler = suite.scheduler();
    EXPECT_EQ(suite.read("log/alivechk.pid"), std::to_string(suite.pid));
    EXPECT_EQ(shell("stat -c %a " + suite.path("log/alivechk.pid")), "644\n");
    EXPECT_EQ(of_process(scheduler, "readlink fd/0 fd/1 fd/2"), repeated(3, "/dev/null\n"));
    for (const pid_t pid : {suite.pid, scheduler})
        EXPECT_EQ(of_process(pid, "readlink cwd"), suite.path("temp") + "\n");
    const std::string leader = " " + std::to_string(scheduler);
    EXPECT_EQ(of_process(scheduler, "cut -d' ' -f4-7 stat"), std::to_string(suite.pid) + leader + leader + " 0\n");
    const std::string descriptors = of_process(scheduler, "ls fd | wc -l");
    {
        Client client = suite.client();
        EXPECT_EQ(client.ask("modcntl\tparts\toff"), over);
        suite.raise("E0001:bad");
        EXPECT_EQ(suite.status(client), expected_status("error", "DATE;E0001:bad\r\n"));
    }
    for (const auto& [signal, raw_status] : {std::pair{SIGKILL, "0x9"}, std::pair{SIGTERM, "0xf"}}) {
        const auto begin = std::chrono::steady_clock::now();
        send_signal(scheduler, signal);
        suite.await_trace("alive_check:waitpid(pid=" + std::to_string(scheduler) + ") returns " + raw_status +
                          "(errno=");
        ASSERT_TRUE(next_scheduler_accepts(suite, scheduler));
        EXPECT_GT(std::chrono::steady_clock::now() - begin, 2900ms);
        scheduler = suite.scheduler();
        Client client = suite.client();  // clean marks, every module on, no more descriptors than at first
        EXPECT_EQ(suite.status(client), expected_status(""));
        EXPECT_EQ(client.ask("parts"), over);
        EXPECT_EQ(client.ask("quit"), goodbye);
        EXPECT_TRUE(wait_until([&] { return of_process(scheduler, "ls fd | wc -l") == descriptors; }));
    }
    EXPECT_EQ(of_process(suite.pid, "cat task/*/children"), std::to_string(scheduler) + " ");  // no zombies
    Client client = suite.client();
    client.send("restart\tsched\r");
    EXPECT_EQ(client.rest(), "");
    EXPECT_EQ(suite.wait_exit(), 0);
    suite.expect_trace(
        {"\"restart sched\" is issued by HMI(127.0.0.1).\n", "alive_check:vgd scheduler ends normally.\n"});
    EXPECT_THAT(suite.calls(), Not(HasSubstr("allmodcall stop")));
    EXPECT_EQ(suite.out(), "");
    EXPECT_EQ(suite.read("stderr"), "");
}

// The pipe may be replaced while a scheduler runs. A program that writes an event while there is no pipe makes a file.
TEST(E2eSupervisor, KeepsTheFifoOpenThatIsThereAtTheStartOfEachScheduler) {
    Suite suite;
    suite.fake_clock(10);
    suite.start({});
    const auto kept = [&suite] {
        return of_process(suite.pid, "find -L fd -samefile " + suite.path("pipe") + " | wc -l");
    };
    EXPECT_EQ(kept(), "1\n");
    for (const auto& [change, wanted] : {std::pair{"mkfifo pipe", "1\n"}, std::pair{": >pipe", "0\n"}}) {
        SCOPED_TRACE(change);
        shell("cd " + suite.path("") + "; rm pipe; " + change);
        const pid_t scheduler = suite.scheduler();
        send_signal(scheduler, SIGKILL);
        ASSERT_TRUE(next_scheduler_accepts(suite, scheduler));
        EXPECT_EQ(kept(), wanted);
    }
}

TEST(E2eSupervisor, DoesNotRetryWhenTheAddressCannotBeBound) {
    const std::string stopped = "alive_check:vgd scheduler abnormally terminated";
    const struct {
        const char* name;
        std::string bound, debug;
        bool taken;
        std::string raw_status, traced;
    } cases[] = {
        {"port in use", "", "x", true, "0x200", stopped + " for the specified address is already in use.\n"},
        {"no address of this machine", "192.0.2.1", "x", false, "0x100", stopped + ".\n"},
        // Only the first letter of -d counts: supervised, with the supervisor's trace on standard output.
        {"port in use, debugging", "", "DA", true, "0x200",
         stopped + " for the specified address is already in use.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Suite suite;
        const std::string port = std::to_string(suite.port);
        suite.write("config/common.ini", "[sched]\nbound_ip_address = " + c.bound + "\n");
        const unique_fd other(c.taken ? listen_on(suite.port) : unique_fd());
        EXPECT_EQ(suite.run({"-N", "0", "-p", port, "-d", c.debug}), 1);
        EXPECT_EQ(suite.read("stderr"),
                  c.taken ? "Error: the specified port is already in use. (port " + port + ")\n" : "");
        suite.expect_trace({"Info:use port", "returns " + c.raw_status + "(errno=", c.traced});
        const bool to_files = c.debug == "x";  // the debugging scheduler writes to /dev/null
        EXPECT_EQ(suite.traced("Error: bind failed. portno=" + port + " errno="), to_files);
        EXPECT_EQ(suite.out().empty(), to_files);
        EXPECT_EQ(suite.calls(1), "allmodcall start,parts status,diag status");  // one start
    }
}

TEST(E2eSupervisor, EndsWithAnOrderlySchedulerButDoesNotTakeItDownWhenKilled) {
    Suite suite;
    suite.start({});
    suite.event("I0199:end\n");
    EXPECT_EQ(suite.wait_exit(), 0);
    EXPECT_THAT(suite.trace(), HasSubstr("returns 0x0(errno="));
    EXPECT_EQ(suite.calls(), "allmodcall stop");
    suite.start({});
    send_signal(suite.pid, SIGTERM);
    EXPECT_EQ(suite.wait_exit(), 128 + SIGTERM);
    Client client = suite.client();
    EXPECT_EQ(suite.status(client), expected_status(""));
}

}  // namespace e2e
