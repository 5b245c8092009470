#include "e2e/harness.h"

#include <fcntl.h>
#include <sstream>
#include <sys/resource.h>
#include <thread>

namespace e2e {

static const std::string version = "8.0.0-130207154512\n";
static const std::string usage = "Usage: sched -c -D -p port -t pendtime -v -N nice\n";
static const std::string banner = "*** VGD scheduler *** version." + version;
static const strings required = {"VGD_bin", "VGD_config", "VGD_temp", "VGD_update", "VGD_data", "VGD_log", "VGD_PIPE"};

static std::string missing(const strings& names) {
    std::string text;
    for (const std::string& name : names) text += "Error:environment variable " + name + " does not set.\n";
    return text + "VGD scheduler failed.\n";
}

TEST(E2eStartup, VersionAndErrorsEndTheProgramWithTheirCodeAndText) {
    const struct {
        const char* name;
        strings args, unset;
        int code;
        std::string out, err;
        bool traces;
    } cases[] = {
        {"version without environment", {"-v"}, required, 0, version, "", false},
        {"no argument and no environment", {}, required, 1, "", missing(required), false},
        {"version first", {"-v", "-D"}, {}, 0, version, "", false},
        {"version, other letter", {"-V"}, {}, 0, version, "", true},
        {"version after another option", {"-p", "-1", "-v"}, {}, 0, version, "", true},
        {"no environment", {"-D", "-v"}, required, 1, "", missing(required), false},
        {"two variables missing", {"-D"}, {"VGD_update", "VGD_bin"}, 1, "", missing({"VGD_bin", "VGD_update"}), false},
        {"unknown option", {"-c"}, {}, 1, usage, "invalid option -- 'c'\n", true},
        {"option without its argument", {"-D", "-p"}, {}, 1, usage, "requires an argument -- 'p'\n", true},
        {"no port", {"-p", "-1"}, {}, 1, "", "Error:VGD: vgdsched is not defined in services of tcp.\n", true},
        {"no module list",
         {"-N0"},
         {},
         1,
         "",
         "Error:failed to read VGD module list. filename=\"/nonexistent/list\"\n",
         true},
    };
    for (const auto& c : cases) {
        Suite suite;
        for (const std::string& name : c.unset) suite.env.erase(name);
        suite.env["VGD_modules_path"] = "/nonexistent/list";
        SCOPED_TRACE(c.name + ": "s + testing::PrintToString(c.args));
        EXPECT_EQ(suite.run(c.args), c.code);
        EXPECT_EQ(suite.out(), c.out);
        EXPECT_THAT(suite.read("stderr"), EndsWith(c.err));
        EXPECT_EQ(suite.read("stderr") != c.err, c.out == usage);  // the option parser names the program
        EXPECT_EQ(suite.traced(banner), c.traces);
        EXPECT_EQ(suite.read("log/sched.pid"), "");
    }
}

TEST(E2eStartup, ConfigurationIsTracedIntoTheFileAndTheRestToStandardOutput) {
    Suite suite;
    suite.settings(
        "port_no = 1\nanalysis_interval = 30s\nqmxut_port = x\n[x]\nudp_dest_port = "
        "9\n[sched]\nudp_dest_addr = y");
    suite.write("config/common.ini",
                "[sched]\nallowed_ip_address = 10.0.0.0/8, 1.2.3.4\nbound_ip_address = 127.100.100.100\n");
    suite.wrapper = {"sh", "-c", "exec \"$@\" <&- 2>&-", "sh"};
    suite.env["VGD_timer_jobs_path"] = "/nonexistent/jobs";
    suite.write("log/sched.pid", std::string(100, '9'));  // all of it is replaced
    suite.start({"-D", "-t", "-9x", "-N", "2"});          // like -p, they override the file
    EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(suite.pid)), std::min(getpriority(PRIO_PROCESS, 0) + 2, 19));
    EXPECT_EQ(of_process(suite.pid, "readlink fd/0 fd/2 cwd"), repeated(2, "/dev/null\n") + shell("pwd -P"));
    EXPECT_EQ(of_process(suite.pid, "readlink fd/* | grep -c null"), "2\n");
    EXPECT_EQ(suite.read("log/sched.pid"), std::to_string(suite.pid));
    EXPECT_EQ(suite.read("log/alivechk.pid"), "");
    EXPECT_EQ(shell("sed -E 's,^[0-9/]{10} [0-9:]{8} thr:[0-9a-f]{8} ,,' " + suite.path("log/sched_log")),
              banner + R"(ini:file="sched.conf" section="[sched]" key="udp_dest_addr" value="y"
ini:file="sched.conf" section="[sched]" key="qmxut_port" value="x"
ini:file="sched.conf" section="[sched]" key="port_no" value="1"
ini:file="sched.conf" section="[sched]" key="analysis_interval" value="30s"
ini:file="common.ini" section="[sched]" key="bound_ip_address" value="127.100.100.100"
ini:file="common.ini" section="[sched]" key="allowed_ip_address" value="10.0.0.0/8, 1.2.3.4"
allowed ip address 0 = 10.0.0.0 mask ff000000
allowed ip address 1 = 1.2.3.4 mask ffffffff
)");
    EXPECT_EQ(suite.read("log/sched_logerr"), "");
    const std::string port = std::to_string(suite.port);
    suite.expect_trace({"Info:use port " + port + " for HMI connection.\n", "Info:password open fails errno=2, no auth",
                        "Info:modules:0 \"allmodcall\" \"allmodcall\" \"-\" 60\n", "read done. 23 entries found.\n",
                        " " + repeated(52, "*") + "\n", "Info:sched:started(pid=" + std::to_string(suite.pid) + ")\n",
                        "Info:sched:waiting vgdpipe ready\n", "Info:calling VGDstart\n",
                        "command_buffer:\"allmodcall start\"\n", "binding to 127.100.100.100 (port " + port + ") ...\n",
                        "Info:comm:bind succeed. (port " + port + ")\n", "Info:sched:accepting socket = "});
    const int reader = open(suite.path("pipe").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    std::ostringstream flags;
    flags << std::hex << fcntl(reader, F_GETFL);
    close(reader);
    suite.expect_trace({"Info:event:pipe reader:fd=", " flag=0x" + flags.str() + "\n",
                        "Info:event:dummy pipe writer:fd=", "Info:event:vgd_pipe is ready now\n",
                        "Info:event:pend time = -9\n"});
    suite.await_trace("Error:timer:timer_job /nonexistent/jobs cannot open.(errno=2)\n");
    EXPECT_EQ(suite.calls(1), "allmodcall start,parts status,diag status");
    EXPECT_EQ(suite.read("stderr"), "");
}

TEST(E2eStartup, AllowedAddressesAreReadInOrderAndOthersAreRefused) {
    Suite suite;
    suite.write(
        "config/common.ini",
        "[sched]\nbound_ip_address = none\nallowed_ip_address = 10.9.0.0/8\t,, 127.0.0.3/31, x 2.0.0.0/0 3.0.0.0/33\n");
    suite.settings("analysis_interval = 0");  // is no interval
    suite.start();
    const auto descriptors = [&] { return of_process(suite.pid, "ls fd | wc -l"); };
    const std::string before = descriptors();
    EXPECT_THAT(suite.out(), HasSubstr("binding to 0.0.0.0 (port "));
    suite.await_trace("Info:event:pend time = 60\n");
    EXPECT_EQ(
        suite.client().ask("show\tallowed_ip"),
        "### allowed IP addresses ###\r\n1 addr=10.9.0.0 mask=ff000000\r\n2 addr=127.0.0.3 mask=fffffffe\r\n"
        "3 addr=255.255.255.255 mask=ffffffff\r\n4 addr=2.0.0.0 mask=ffffffff\r\n5 addr=3.0.0.0 mask=ffffffff\r\n" +
            over);
    EXPECT_EQ(suite.client("127.0.0.2").ask("nosuch"), unsupported);
    EXPECT_FALSE(suite.traced("Warning:address is not allowed to"));
    EXPECT_EQ(suite.client("127.0.0.9").rest(), "");
    EXPECT_TRUE(wait_until([&] { return descriptors() == before; }, 5s));
    suite.expect_trace({"hmi 0200007f matched to 0300007f(mask fffffffe)\n", "Warning:address is not allowed to"});
}

// Another process holds the FIFO open, so a read by the daemon would wait for ever. The daemon writes nothing into it.
TEST(E2eStartup, GoesOnWithAFifoInPlaceOfAFile) {
    const struct {
        std::string file;
        strings args;
        std::string traced;
    } cases[] = {
        {"config/sched.conf", {"-D"}, "Info:use port"},
        {"config/common.ini", {"-D"}, "Info:use port"},
        {"config/pvo.ini", {"-D"}, "Info:modules:reading"},
        {"config/timer_jobs", {"-D"}, "timer_jobs cannot open.(errno=6)\n"},
        {"data/password", {"-D"}, "Info:password open fails errno=6, no authentication required.\n"},
        {"data/up_time", {"-D"}, "/up_time errno=6)\n"},
        {"data/up_time_start", {"-D"}, "/up_time_start errno=6)\n"},
        {"log/sched.pid", {"-D"}, "/sched.pid:failed to open.(errno=6)\n"},
        {"log/alivechk.pid", {}, "/alivechk.pid:failed to open.(errno=6)\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        Suite suite;
        const std::string fifo = suite.path(c.file);
        EXPECT_EQ(shell("rm -f " + fifo + "; mkfifo " + fifo + " 2>&1"), "");
        const unique_fd other_end(open(fifo.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        suite.start(c.args);
        EXPECT_TRUE(suite.traced(c.traced));
        EXPECT_EQ(suite.client().ask({"nosuch", "qmx\tsyslog\tenable", "nosuch"}), unsupported + over + unsupported);
        char byte;
        EXPECT_EQ(read(other_end.get(), &byte, 1), -1);
        EXPECT_EQ(shell("rm " + fifo), "");  // so that the test itself does not wait for it
    }
}

// What is written to it arrives, without a busy loop at its end.
TEST(E2eStartup, ReadsAnOrdinaryFileInPlaceOfTheEventPipe) {
    Suite suite;
    shell("rm " + suite.path("pipe") + "; echo E0101:first >" + suite.path("pipe"));
    suite.start();
    suite.await_events(1);
    const auto ticks = [&] {
        return std::stol(of_process(suite.pid, "echo $(($(cut -d' ' -f14,15 stat | tr ' ' +)))"));
    };
    const long before = ticks();
    std::this_thread::sleep_for(1s);
    EXPECT_LT(ticks() - before, 20);
    shell("echo E0102:second >>" + suite.path("pipe"));
    suite.await_events(2);
}

// A launcher that reads a pipe to its end gets that end while the daemon runs.
TEST(E2eStartup, KeepsNoOtherDescriptorOfItsParent) {
    for (const strings& args : {strings{"-D"}, strings{}}) {
        Suite suite;
        const std::string fifo = suite.path("temp/inherited");
        EXPECT_EQ(shell("mkfifo " + fifo), "");
        const unique_fd reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        suite.wrapper = {"sh", "-c", "exec 7>\"$VGD_temp/inherited\" && exec \"$@\"", "sh"};
        suite.start(args);
        char byte;
        EXPECT_EQ(read(reader.get(), &byte, 1), 0) << testing::PrintToString(args);
        EXPECT_EQ(suite.client().ask("nosuch"), unsupported);
    }
}

TEST(E2eStartup, GoesOnWithoutAnEventPipeAndWithBlockedSignals) {
    Suite suite;
    suite.env["VGD_PIPE"] = suite.path("stdout/pipe");  // another error than "no such file", which would end the daemon
    suite.start();
    EXPECT_THAT(suite.out(), HasSubstr("Error:event:VGDpipe \"" + suite.env["VGD_PIPE"] + "\" open fails.\n"));
    Client client = suite.client();
    for (const int signal : {SIGHUP, SIGUSR1, SIGPIPE, SIGCHLD, SIGALRM}) send_signal(suite.pid, signal);
    EXPECT_EQ(suite.status(client), expected_status(""));
    send_signal(suite.pid, SIGTERM);
    EXPECT_EQ(suite.wait_exit(), 128 + SIGTERM);
    EXPECT_EQ(suite.calls(), "");  // only the orderly end tells the modules to stop
}

}  // namespace e2e
