#include "e2e/harness.h"

namespace e2e {

TEST(E2eInternal, CommandsAnswerByteForByte) {
    Suite suite;
    suite.listed("alpha parts + 60\nbeta - shown 0");
    suite.write("config/timer_jobs", "1 0,23 31 12 6 parts\tx\n");
    suite.react("ehello.", "echo welcome");
    suite.wrapper = {"env", "--ignore-signal=CHLD"};  // the parent may ignore the signal
    suite.start();
    const std::string show_usage =
        "Usage: show command\r\n allowed_ip  ... show \"allowed_ip_addres\" setting\r\n"
        " ip          ... show connection\r\n" +
        over;
    const std::string debug_usage =
        "Uage: debug TAB command TAB arg\r\n timer    ... display timer jobs.\r\n"
        " hmi      ... display HMI structure\r\n hmi all  ... display HMI structure\r\n" +
        over;
    const struct {
        std::string line, answer;
    } cases[] = {
        {"modcntl\talpha\toff\tmore", over},
        {"modcntl\tbeta\toff", over},
        {"modcntl", "alpha off\r\nbeta off\r\n" + over},
        {"alpha\tx", busy},
        {"hello\tan-operator-of-20-ch", "welcome\r\n" + over},
        {"show\tip", "ip=127.0.0.1 user=an-operator-of- login=DATE \r\n" + over},
        {"hello", "welcome\r\n" + over},
        {"modcntl\tehello\toff", over},
        {"hello\tabcdefghijklmno", busy},
        {"show\tip", "ip=127.0.0.1 user=abcdefghijklmno login=DATE \r\n" + over},
        {"show", show_usage},
        {"show\tip2", show_usage},
        {"show\tIP", show_usage},
        {"debug", debug_usage},
        {"debug\thmi2", debug_usage},
        {"debug\ttimer", "Timer Jobs (jmax=1)\r\n       " + repeated(6, "0123456789") +
                             "012\r\njob#0 \"parts\tx\"\r\n" +
                             "wday  =0000001\r\nmonth =0000000000001\r\nmday  =" + repeated(31, "0") + "1\r\nhour  =1" +
                             repeated(22, "0") + "1\r\nminute=01" + repeated(60, "0") + "\r\n" + over},
        {"parts x", unsupported},
        {"nosuch" + repeated(15, "\tx"), unsupported},
        {"parts" + repeated(15, "\tx"), unsupported},
        {std::string(16383, 'x') + "restart\tall", busy},  // the rest is a line of its own, and gets no answer
        {"restart\tall\rnosuch", unsupported},
    };
    Client client = suite.client();
    for (const auto& [line, answer] : cases) EXPECT_EQ(mask_dates(client.ask(line)), answer) << line;
    client.ask("res_data\t0123456789abcdefX");
    suite.await_trace("res_data:connecting to 127.0.0.1:18000 ...\n");
    client.send("quit\tnow\r");
    EXPECT_EQ(client.rest(), goodbye);
    suite.expect_trace({"Info:internal:\"modcntl alpha off more\"\n", "Error:command:module is busy \"alpha\"\n",
                        "Info:hello login:an-operator-of-\n", "command1:\"ehello\"(from 127.0.0.1) no.0\n",
                        "Warning:comm:unsupported(\"parts x\")", "Warning:comm:unsupported(\"nosuch x",
                        "Warning:comm:too many fields (16, max=15) from hmi(127.0.0.1)\n",
                        "Error:comm:line overflow (max=16384 soc="});
}

TEST(E2eInternal, LockHasOneHolderAndIsFreedWhenTheHolderDisconnects) {
    Suite suite;
    suite.start();
    Client first = suite.client();
    EXPECT_EQ(first.ask("unlock"), busy);
    const std::string row = "ip=127.0.0.1 user= login=DATE ";
    {
        Client second = suite.client();
        EXPECT_EQ(second.ask({"lock", "lock"}), over + busy);
        EXPECT_EQ(first.ask({"lock", "unlock"}), busy + busy);
        EXPECT_EQ(mask_dates(first.ask("show\tip")), row + "\r\n" + row + "locked=1\r\n" + over);
        EXPECT_EQ(second.ask({"unlock", "unlock", "lock"}), over + busy + over);
    }
    // The holder has disconnected: the lock is free, and no operator is shown with it.
    EXPECT_TRUE(wait_until([&] { return mask_dates(first.ask("show\tip")) == row + "\r\n" + over; }));
    EXPECT_EQ(first.ask({"lock", "unlock"}), over + over);
    // Written after the answers, so their order varies.
    for (const char* end : {"unlock failed(free)", "lock succeed", "lock failed(busy)", "unlock succeed"})
        suite.await_trace(" "s + end + " from 127.0.0.1\n");
}

TEST(E2eInternal, DumpShowsEachOperatorAndItsQueueFromTheOldestMessage) {
    Suite suite;
    suite.env["TZ"] = "UTC";
    suite.start();
    Client client = suite.client("127.0.0.2");
    EXPECT_EQ(client.ask("hello\tjoe"), over);
    Client other = suite.client();
    EXPECT_EQ(other.ask("res_send"), over);
    suite.event("W0000:1\nW0000:2\n");
    suite.await_events(2);
    const auto dump = [&](const std::string& argument) {  // with every date as DATE, thread ids as N
        std::string text = mask_dates(client.ask("debug\thmi" + argument));
        for (std::size_t at = 0; (at = text.find("(tid=", at) + 5) != 4;)
            text.replace(at, text.find(')', at) - at, "N");
        return text;
    };
    const std::string first = repeated(32, "-") +
                              "\r\nremote:127.0.0.2 (tid=N) user=\"joe\" login=DATE\r\nin=2 out=0 " +
                              "lost=0 last_status=DATE\r\nipset=\"\" resource_fd=-1\r\n";
    const std::string second = repeated(32, "-") + "\r\nremote:127.0.0.1 (tid=N) user=\"\" login=DATE\r\nin=2 out=0 " +
                               "lost=0 last_status=DATE\r\nipset=\"\" resource_fd=-1\r\n";
    const std::string queue = "q#0:SB:\"W0000:1\"\r\n   (DATE)\r\nq#1:SB:\"W0000:2\"\r\n   (DATE)\r\n";
    std::string full = "hmi#0 flag=1\r\n" + first + queue + "hmi#1 flag=1\r\n" + second + queue;
    for (int i = 2; i < 32; i++) full += "hmi#" + std::to_string(i) + " flag=0\r\n";
    EXPECT_EQ(dump(""), first + second + over);
    EXPECT_EQ(dump("\tALL"), first + second + over);
    EXPECT_EQ(dump("\tall"), full + over);
    EXPECT_THAT(client.ask("debug\thmi"), HasSubstr("last_status=1970/01/01 00:00:00\r\n"));
    EXPECT_EQ(suite.status(client), expected_status("", "DATE;W0000:1\r\nDATE;W0000:2\r\n"));
    const std::string dates = client.ask("debug\thmi");
    EXPECT_GT(dates.find("last_status=1970"), dates.find("remote:127.0.0.1")) << "only the other one never asked";
    EXPECT_THAT(dates, Not(HasSubstr("login=1970")));
    // A ring that has wrapped is listed from its oldest message, across the end of the table.
    std::string wrapped = "in=1 out=2 lost=0 last_status=DATE\r\nipset=\"\" resource_fd=-1\r\n";
    for (int i = 0; i < 127; i++) {
        const std::string text = "I0000:" + std::to_string(i);
        suite.event(text + "\n");
        wrapped += "q#" + std::to_string((i + 2) % 128) + ":SB:\"" + text + "\"\r\n   (DATE)\r\n";
    }
    suite.await_events(129);
    EXPECT_THAT(dump("\tall"), HasSubstr(wrapped + "hmi#1 "));
}

}  // namespace e2e
