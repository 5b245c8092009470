#include "e2e/harness.h"

namespace e2e {

TEST(Connection, Lines) {
    Suite suite;
    suite.module("args", "printf '<%s>' \"$@\"; echo");
    suite.listed("mystery - - 0");
    suite.start();
    auto cases = rows(
        "args\ta b\r -> <a b>\r\nOVER|args\ta\r\nargs\tb\r\n -> <a>\r\nOVER<b>\r\nOVER|"
        "\n\0ar\ngs\t\0a\0\nb\r -> <ab>\r\nOVER|args\t\tb\t\r -> <><b><>\r\nOVER|args\r -> <>\r\nOVER|"
        "\r -> UNSUPPORTED|Args\ta\r -> UNSUPPORTED|args a\r -> UNSUPPORTED|\targs\r -> UNSUPPORTED|"
        "mystery\r -> UNSUPPORTED|args\t1\rnone\rargs\t2\r -> <1>\r\nOVERUNSUPPORTED<2>\r\nOVER|"
        "args\ta\rargs\tb -> <a>\r\nOVER<b>\r\nOVER"s);  // the last line is cut off by the end
    const std::string fourteen = repeated(14, "\tx");
    const std::string most(16383 - 5, 'x');  // with "args" and a TAB a line of 16383 characters, one too long
    cases.insert(cases.end(), {{"args" + fourteen + "\r", repeated(14, "<x>") + "\r\n" + over},
                               {"args" + fourteen + "\tx\rargs\ty\r", unsupported + "<y>\r\n" + over},
                               {"show" + fourteen + "\t\rargs\ty\r", unsupported + "<y>\r\n" + over},
                               {"args\t" + most.substr(1) + "\r", "<" + most.substr(1) + ">\r\n" + over},
                               {"args\t" + most + "\r", busy + unsupported},
                               {"args\t" + most + "args\trest\r", busy + "<rest>\r\n" + over},
                               {repeated(10, "args\t1\r"), repeated(10, "<1>\r\n" + over)}});
    for (const auto& [sent, received] : cases)
        for (const std::size_t piece : {sent.size(), sent.size() / 10 + 1, std::size_t{1}}) {
            if (piece == 1 && sent.size() > 1000) continue;
            Client client = suite.client();
            for (std::size_t at = 0; at < sent.size(); at += piece) client.send(sent.substr(at, piece));
            client.end_sending();
            EXPECT_EQ(client.rest(), received) << "in pieces of " << piece << ": " << sent.substr(0, 100);
        }
    suite.expect_trace({"Warning:comm:unsupported(\"args a\")", "Error:comm:line overflow (max=16384 soc="});
}

TEST(Connection, QuitEndsOrderlyWhileTheNextClientTakesItsPlace) {
    Suite suite;
    suite.start();
    for (int round = 0; round < 40; round++) {
        Client leaving = suite.client();
        leaving.send("quit\r\nstatus\r\n");  // what stands behind must not turn the end into a reset
        Client coming = suite.client();
        EXPECT_EQ(leaving.rest(), goodbye);
        EXPECT_EQ(coming.ask("nosuch"), unsupported);
    }
    suite.expect_trace({"Info:hmi(127.0.0.1:", ") is coming\n", " is spawned for hmi(127.0.0.1)\n",
                        "close the HMI(127.0.0.1) by quit command.\n", "hmi(127.0.0.1) is gone.\n"});
    EXPECT_FALSE(suite.traced("Error:comm:shutdown"));
}

// Work that follows a module command: which commands run, and what becomes of the marks.
TEST(Connection, FollowUpCommands) {
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
        EXPECT_EQ(client.ask("parts\tclear"), over);  // the condition is still there: the mark stays
        EXPECT_EQ(suite.status(client), status_answer(prognosis ? "error prevent" : "error"));
        suite.react("parts.status", "");
        for (int round = 0; round < 2; round++)  // the second time nothing is raised, and nothing follows
            EXPECT_EQ(client.ask({"parts\tclear\tall", "prognosis\tprevdel"}), over + over);
        EXPECT_EQ(suite.status(client), status_answer(""));
        EXPECT_EQ(suite.calls(1),
                  "allmodcall start,parts status,"s + (prognosis ? "prognosis prevstatus," : "") +
                      "diag status,parts clear,parts status,parts clear all,parts status,prognosis prevdel," +
                      (prognosis ? "parts prevstatus," : "") + "parts clear all,prognosis prevdel");
    }
}

}  // namespace e2e
