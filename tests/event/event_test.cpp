#include "command/module_table.h"
#include "event/syslog_switch.h"
#include "event/syslog_watcher.h"
#include "unit_support.h"

namespace unit {

struct Event : Scratch {};

TEST_F(Event, ForwardingSwitch) {
    for (const auto& [ini, expected] :
         rows("[section 99]\na%yes\n -> 1|[section 100]\na%yes\n -> 0|[section 1]\na%Yes -> 0| -> 0|"
              "[section 0]\na%yes \n -> 0|[section 0]\na%no\n[section 5]\na%yes -> 1",
              "ctive = ")) {
        write("config/pvo.ini", ini);
        EXPECT_EQ(syslog_enable_check(), 0);
        EXPECT_EQ(std::to_string(qmx_syslog_is_enable), expected) << ini;
    }
}

TEST_F(Event, SystemLogPolls) {
    write("config/vgd_modules", "qmx qmx - 9\n");
    ASSERT_EQ(read_modules(), 0);
    program("qmx", "echo $* >>$D/log/calls; . $D/log/do");
    const std::string log = path("log/log");
    const std::string set_up =
        "cd log; O=../data/qmx_syslog_offset; S() { stat -c '%i %s' log; }; rm -f sched_log; : >calls; ";
    qmx_syslog_is_enable = 1;
    syslog_seen seen;
    // A change, then how often a poll forwards and how its trace begins; a full stop stands behind the trace.
    for (const auto& [change, expected] :
         rows("echo >do -> 0 event:Error:failed to stat %, errno=2\n.|: >log -> 1 event:% size changed.(0:0 |"
              ": -> 0 read_offsetfile() fopen error, errno=2|echo 12 >$O -> 0 read_offsetfile() fscanf error|"
              "S >$O -> 0 .|echo 1 4 >$O -> 1 unsent event exists.(1:4 -> |: -> 1 unsent event exists.(1:4|"
              "echo exit 2 >do; echo two >>log -> 1 event:% size changed.|S >$O -> 1 command1:|"
              "echo >do -> 1 command1:|: -> 0 .|cp log new; mv new log -> 1 event:%|S >$O -> 0 .",
              log)) {
        shell(set_up + change);
        syslog_poll(log.c_str(), seen);
        const std::string runs = shell("wc -l <log/calls").substr(0, 1);
        EXPECT_THAT(runs + " " + trace() + ".", StartsWith(expected)) << change;
    }
    qmx_syslog_is_enable = 0;
    write("log/log", "grown while it was off");
    syslog_poll(log.c_str(), seen);
    EXPECT_EQ(trace(), "");
}

}  // namespace unit
