#include "e2e/harness.h"

#include <filesystem>

namespace e2e {

const milliseconds a_minute = 60s + patience;

static std::string due(int job, const char* command, time_t when) {
    return "timer:run command:job=" + std::to_string(job) + ",\"" + command + "\" for " + std::to_string(when) + "\n";
}

// Two schedulers during two full minutes: the module lock of one is held all the time, that of the other is free.
TEST(E2eMinute, JobsRunOnceReloadAndWaitForTheLockAndTheUptimeCounts) {
    Suite held;
    Suite idle;
    constexpr time_t first = 1704103260;  // 10:01
    // The next minute must not come before everything is prepared.
    for (Suite* suite : {&held, &idle}) suite->fake_clock(*SCHED_SANITIZE == '\0' ? 8 : 5, first - 55);
    for (const Suite* suite : {&held, &idle})
        for (const char* name : {"tick", "patrol"}) suite->module(name, "echo \"${0##*/} $*\" >> \"$VGD_temp/calls\"");
    held.module("slow", "while [ -e \"$0\" ] && [ ! -e \"$VGD_temp/go\" ]; do sleep 2; done", 300);
    held.write("data/up_time", "1440\n");
    held.write("config/timer_jobs", "* * * * * tick\told\n");
    idle.write("config/timer_jobs", "* * * * * tick\tone\n0 0 1 1 * patrol\tx\n0 0 1 1 * padiag\tx\n");
    held.start();
    idle.start();
    held.expect_trace({"read uptime file \"1440\"\n", "uptime start 1440\n"});
    Client client = idle.client();
    idle.raise("E0007:x");
    EXPECT_EQ(idle.status(client), expected_status("diag patrol padiag", "DATE;E0007:x\r\n"));
    Client holder = held.client();
    holder.send("slow\r");
    held.await_trace("command:\"slow\" \n");
    held.write("config/timer_jobs",
               "* * * * * tick\tevery\n1 * * * * tick\tonce\n31 * * * * tick\tnever\n* * * * * patrol\tx\n");
    idle.write("config/timer_jobs", "* * * * * tick\ttwo\n");

    EXPECT_TRUE(wait_until([&] { return idle.read("data/up_time") == "1\n"; }, a_minute));
    EXPECT_TRUE(wait_until([&] { return held.read("data/up_time") == "1441\n"; }));
    held.expect_trace({"timer:patrol is changed to be enabled\n", due(0, "tick every", first),
                       "command1:trylock failed.(no.1)\n", "command:no.1 is queue-ed.\n", "command:no.2 is queue-ed.\n",
                       due(3, "patrol x", first), "command:no.4 is queue-ed.\n"});
    EXPECT_TRUE(
        in_order(idle.trace(), {"timer:patrol is changed to be disabled\n", "timer:padiag is changed to be disabled\n",
                                due(0, "tick two", first), "command1:trylock succeed.(no.1)\n"}));
    EXPECT_EQ(idle.status(client), expected_status("diag"));
    Client second = held.client();
    EXPECT_EQ(held.status(second), expected_status("patrol"));

    std::filesystem::remove(held.path("pipe"));
    const std::size_t before = held.trace().size();
    held.await_trace("Info:calling VGDend\n", a_minute);
    const std::string trace = held.trace().substr(before);
    EXPECT_TRUE(
        in_order(trace, {due(0, "tick every", first + 60), due(3, "patrol x", first + 60), "trylock failed.(no.4)\n",
                         "Warning: vgd_pipe is not exist. errno=2\n", "Info:calling VGDend\n"}));
    EXPECT_THAT(trace, Not(HasSubstr("is queue-ed")));  // a job that already waits is not queued again
    held.write("temp/go", "");
    EXPECT_EQ(holder.answer(), over);
    EXPECT_EQ(held.wait_exit(), 0);
    EXPECT_EQ(held.calls(), "tick every,tick once,patrol x,allmodcall stop");
    EXPECT_EQ(held.read("data/up_time"), "1441\n");
    held.expect_trace({"execute delayed one.(no.1)\n", "execute delayed one.(no.2)\n", "execute delayed one.(no.4)\n"});
    EXPECT_TRUE(wait_until([&] { return idle.read("data/up_time") == "2\n"; }));
    EXPECT_EQ(idle.calls(), "tick two,tick two");  // and no check of the diagnosis in the first five minutes
}

// Polls every second here. The log is that of the machine, if it has one.
TEST(E2eSystemLog, IsPolledOnlyWhileForwardingIsOn) {
    Suite suite;
    suite.settings("syslog_poll_interval = 1");
    suite.start();
    suite.event("W0000:early\n");
    const auto watched = [&] { return suite.traced("/var/log/messages"); };
    EXPECT_FALSE(wait_until(watched, 2200ms));
    const std::string status = suite.client().ask("status");
    const std::string date = status.substr(status.find("\r\n") + 2, 19);  // of the message, not of the answer
    EXPECT_GE(std::stol(shell("echo $(($(date +%s) - $(date +%s -d " + date + ")))")), 2);
    suite.write("config/pvo.ini", "[section 7]\nactive = yes\n");
    EXPECT_EQ(suite.client().ask("qmx\tsyslog\tenable\tnow"), over);
    EXPECT_TRUE(wait_until(watched));
}

}  // namespace e2e
