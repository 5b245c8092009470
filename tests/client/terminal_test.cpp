// schedctl and schedpasswd at a pseudo-terminal: session, password prompts.
#include "terminal.h"

#include "e2e/harness.h"
#include "scripted_scheduler.h"

#include <csignal>
#include <cstdlib>

using namespace e2e;

namespace {

class E2eClientTerminal : public ClientTest {
protected:
    void SetUp() override {
        setenv("TZ", "XST4:30", 1);  // west of UTC: a wrong sign of the zone shows as hours
        suite.module("odd", R"(case $1 in
text) printf "$2" ;;
split) printf 'm\303'; sleep 0.1; printf '\244r\n' ;;
wait) echo begin; while [ -e "$0" ] && [ ! -e "$2" ]; do sleep 0.02; done; yes | head -c 300000 ;;
esac
)");
        suite.listed("oddity odd yes 60");  // listed words can be completed
        shell("printf 'secret\\n' | " SCHEDPASSWD_BINARY " --stdin " + suite.path("data/password"));
        suite.start();
        prompt = "127.0.0.1:" + std::to_string(suite.port) + "> ";
    }

    std::string prompt;
};

TEST_F(E2eClientTerminal, SessionCompletesShowsControlCharactersAndKeepsItsHistory) {
    // The file has more lines than are kept, and two sessions end one after the other.
    shell("mkdir -p " + suite.path("state/schedctl"));
    suite.write("state/schedctl/history", "_HiStOrY_V2_\n" + repeated(30000, "an\\040old\\040line\n"));
    suite.raise("E0101:stored");
    ctl("check");
    Terminal other(suite, {SCHEDCTL_BINARY});
    EXPECT_TRUE(in_order(other.expect(prompt), {"Tab completes", "E0101:stored"}));
    Terminal screen(suite, {SCHEDCTL_BINARY});
    screen.expect(prompt);
    screen.type("modcntl\n");  // from now on completion knows the modules
    screen.expect("oddity on");
    screen.expect(prompt);
    screen.press("oddi\ttext 'two words '\n");
    screen.expect("two words \r\n");
    screen.type("oddity text '\\033[2Jevil\\tt\303.\303\244g \\302\\233 \\377\\rz\\n'\n");
    screen.expect("\\x1b[2Jevil");
    screen.expect("t\xc3\xa4g \\xc2\\x9b \\xffz\r\n");
    screen.type("oddity split\n");
    screen.expect("m\xc3\xa4r\r\n");
    screen.type("no such\n");
    screen.expect("[unsupported");
    screen.press("modcntl oddity o\tff\n");  // the key lists "on" and "off"
    screen.expect("off  on");
    screen.expect(prompt);
    screen.type("oddity text x\n");
    screen.expect("[busy");
    screen.press("a dropped line\x03");
    screen.expect("^C");
    screen.press("hel\t");
    EXPECT_EQ(screen.expect("hello  help").find("busy"), std::string::npos);
    screen.expect(prompt + "hel");
    screen.press("\x1a");  // the job goes on here; it sets the terminal and draws the prompt as after `fg`
    screen.expect(prompt + "hel");
    screen.press("p\n");
    screen.expect("conditions and messages");
    screen.type("lock\nshow ip\n");
    screen.expect("locked=1");
    screen.press("\x04");
    screen.expect("quit");
    EXPECT_EQ(screen.wait_exit(), 0);
    suite.await_trace("by quit command.");
    other.press("oddi\ttext x\n");  // the modules are those of the last listing, whatever was asked since
    other.expect("[busy");
    other.press("debug timer\ndebug timer\nexi\t\n");
    EXPECT_EQ(other.wait_exit(), 0);
    EXPECT_LT(suite.read("state/schedctl/history").size(), 100000U);

    Terminal named(suite, {SCHEDCTL_BINARY, "-u", "otto"});
    named.expect("otto@" + prompt);
    named.press(repeated(4, "\x1b[A") + "\n");  // the last line of the first session, before those of the other
    named.expect("user=otto");
    named.expect(prompt);
    named.get_signal(SIGTERM);
    EXPECT_EQ(named.wait_exit(), 0);

    Terminal piped(suite, {"/bin/sh", "-c", SCHEDCTL_BINARY " | cat"});
    piped.expect("reading commands from the terminal");
    piped.type("odd text answer\n");
    piped.expect("answer\r\n");
}

TEST_F(E2eClientTerminal, InterruptEndsTheWaitAndTheSessionGoesOn) {
    Terminal screen(suite, {SCHEDCTL_BINARY});
    screen.expect(prompt);
    // The rest of the answer arrives while the next line is typed, and is dropped.
    screen.type("odd wait " + suite.path("go1") + "\n");
    EXPECT_EQ(screen.expect("begin\r\n").find('('), std::string::npos);
    screen.type("\x03");
    screen.expect("[stopped waiting]\r\n(its answer, when it comes, will be dropped)");
    screen.expect(prompt);
    screen.type("sta");
    suite.write("go1", "");
    EXPECT_EQ(screen.expect("(the answer given up earlier is complete)").find("y\r\ny"), std::string::npos);
    screen.expect(prompt + "sta");
    screen.type("tus\n");
    screen.expect("confdate");
    // A second interrupt takes the next command back, because its answer would come behind the late one.
    screen.type("odd wait " + suite.path("go2") + "\n");
    EXPECT_EQ(screen.expect("begin\r\n").find('('), std::string::npos);
    screen.type("\x03");
    screen.expect(prompt);
    screen.type("parts back\n");
    screen.expect("(waiting for the answer");
    screen.type("\x03");
    screen.expect("(it was not sent)");
    suite.write("go2", "");
    screen.expect("(the answer given up earlier is complete)");
    screen.type("status\n");
    EXPECT_EQ(screen.expect("confdate").find('('), std::string::npos);
    EXPECT_EQ(suite.calls(), "");
    // The scheduler ends and is started again.
    screen.expect(prompt);
    suite.stop();
    screen.expect("(the scheduler closed the connection)");
    for (int i = 0; i < 2; i++) {
        screen.type("status\n");
        EXPECT_EQ(screen.expect("Connection refused]").find('('), std::string::npos);
        screen.expect(prompt);
    }
    suite.start();
    screen.type("status\n");
    screen.expect("confdate");
    screen.expect(prompt);
    // The answer is on its way when the operator stops waiting for it.
    const pid_t agent = std::atoi(shell("pgrep -P " + std::to_string(screen.pid())).c_str());
    suite.raise("E0101:fan");
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    const std::string running = "grep -L ') T' /proc/" + std::to_string(frozen) + "/task/*/stat";
    EXPECT_TRUE(wait_until([&] { return shell(running).empty(); }));
    screen.type("status\n");
    EXPECT_TRUE(wait_until([&] { return received_by(suite.port, 2); }));
    kill(agent, SIGSTOP);
    kill(frozen, SIGCONT);
    EXPECT_TRUE(wait_until([&] { return received_by(suite.port, 3); }));
    screen.type("\x03");
    screen.expect("[stopped waiting]");
    kill(agent, SIGCONT);
    screen.expect("(the answer given up earlier is complete)");
    screen.type("status\n");
    screen.expect("E0101:fan");
}

// Bytes that no request asked for, and a connection that is closed before the first answer.
TEST_F(E2eClientTerminal, SessionReconnectsCleanly) {
    const int port = free_port();
    const ScriptedScheduler scheduler(port, {{{"parts", over + "left over"}}, {{"parts", "new\r\n" + over}}, {}});
    Terminal screen(suite, {SCHEDCTL_BINARY, "-p", std::to_string(port)});
    screen.expect("> ");
    screen.type("parts\n");
    screen.expect("(the scheduler closed the connection)");
    screen.type("parts\n");
    EXPECT_EQ(screen.expect("new\r\n").find("left over"), std::string::npos);
    screen.expect("(the scheduler closed the connection)");
    screen.type("parts\n");
    screen.expect("its table of connections may be full");
}

TEST_F(E2eClientTerminal, SilenceEndsInATimeOut) {
    Terminal session(suite, {SCHEDCTL_BINARY, "-t", "2"});
    session.expect(prompt);
    // Signals that keep coming do not prolong a time-out.
    session.type("odd wait " + suite.path("never") + "\n");
    session.expect("begin\r\n");
    unsigned short rows = 20;
    EXPECT_TRUE(wait_until([&] {
        session.resize(rows = rows == 20 ? 21 : 20, 70);
        return session.shows("[no answer in time]");
    }));
    suite.write("never", "");
    session.expect("(the answer given up earlier is complete)");
    session.expect(prompt);
    // An answer that was given up is not taken for that of the next command. A line is as wide as the new window.
    session.resize(20, 250);
    session.press("odd wait " + suite.path("later") + " " + std::string(100, 'x') + "\n");
    EXPECT_THAT(session.expect("begin\r\n"), HasSubstr(std::string(100, 'x')));
    session.type("\x03");
    session.expect("[stopped waiting]");
    suite.write("later", "");
    session.type("status\n");
    EXPECT_EQ(session.expect("confdate").find("y\r\ny"), std::string::npos);
}

TEST_F(E2eClientTerminal, PasswordsAreAskedAgainAndNeverShown) {
    Terminal first(suite, {SCHEDCTL_BINARY});
    first.expect(prompt);
    first.type("ipset 10.0.0.5\nshow ip\n");
    std::string seen = first.expect("Password for 127.0.0.1: ");
    first.press("\x03");
    seen += first.expect("[login refused: no password given]");
    // Now a login is known to be required: a connection without a password would take messages.
    const int known = connections();
    Terminal screen(suite, {SCHEDCTL_BINARY});
    screen.expect(prompt);
    screen.type("show ip\n");
    seen += screen.expect("Password for 127.0.0.1: ");
    EXPECT_EQ(connections(), known);
    screen.press("\x03");
    screen.expect("[login refused: no password given]");
    screen.expect(prompt);
    screen.type("ipset 10.0.0.5\n");
    seen += screen.expect("Password for 127.0.0.1: ");
    screen.press("mistaken\n");
    screen.expect(prompt);
    screen.type("show ip\n");
    seen += screen.expect("[login refused: wrong password]");
    screen.expect(prompt);
    screen.type("ipset 10.0.0.5\nshow ip\n");
    screen.expect("Password for ");
    screen.press("secret\n");
    seen += screen.expect("ip=10.0.0.5");
    EXPECT_EQ(seen.find("mistaken"), std::string::npos);
    EXPECT_EQ(seen.find("secret"), std::string::npos);
    for (const char* given : {"\x03", "mistaken\n", "secret\n"}) {
        const int earlier = connections();
        Terminal view(suite, {SCHEDCTL_BINARY, "-b", "127.0.0.2", "watch"});
        view.expect("Password for 127.0.0.1: ");
        EXPECT_EQ(connections(), earlier);
        view.press(given);
        if (given == "secret\n"s) {
            view.expect("Messages: ");
            view.press("q");
        }
        EXPECT_EQ(view.wait_exit(&seen), given == "secret\n"s ? 0 : 204) << seen;
    }

    const std::string before = suite.read("data/password");
    for (const char* again : {"otherwise", "fresh"}) {
        Terminal passwd(suite, {SCHEDPASSWD_BINARY, suite.path("data/password")});
        passwd.expect("New password: ");
        passwd.press("fresh\n");
        passwd.expect("New password: ");  // "Verifying - ..."
        passwd.press(again + "\n"s);
        EXPECT_EQ(passwd.wait_exit(&seen), again == "fresh"s ? 0 : 2) << seen;
        EXPECT_EQ(seen.find(again), std::string::npos);
        EXPECT_EQ(suite.read("data/password") != before, again == "fresh"s);
    }
}

}  // namespace
