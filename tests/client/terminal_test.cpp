// schedctl and schedpasswd at a pseudo-terminal: session, live view, password prompts.
#include "e2e/harness.h"
#include "scripted_scheduler.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

using namespace e2e;

namespace {

class Terminal {
public:
    Terminal(const Suite& suite, std::vector<std::string> command, const char* type = "xterm") {
        const winsize size{12, 70, 0, 0};
        pid_ = forkpty(&fd_, nullptr, nullptr, &size);
        if (pid_ != 0) return;
        setenv("SCHED_PORT", std::to_string(suite.port).c_str(), 1);
        setenv("XDG_STATE_HOME", suite.path("state").c_str(), 1);
        setenv("TERM", type, 1);
        setenv("LC_ALL", "C.UTF-8", 1);
        std::vector<char*> argv;
        for (std::string& word : command) argv.push_back(word.data());
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }

    ~Terminal() {
        close(fd_);
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }

    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void type(const std::string& keys) const { EXPECT_EQ(write(fd_, keys.data(), keys.size()), std::ssize(keys)); }

    bool echoes() const {
        termios now{};
        return tcgetattr(fd_, &now) == 0 && (now.c_lflag & ECHO) != 0;
    }

    // Types keys once the program reads single keys, which it does with the echo off.
    void press(const std::string& keys) const {
        EXPECT_TRUE(wait_until([&] { return !echoes(); })) << "the program does not read single keys";
        type(keys);
    }

    void get_signal(int number) const { kill(pid_, number); }

    void resize(unsigned short rows, unsigned short columns) const {
        const winsize size{rows, columns, 0, 0};
        EXPECT_EQ(ioctl(fd_, TIOCSWINSZ, &size), 0);
    }

    bool shows(const std::string& text) {
        read_more();
        return shown_.find(text) != std::string::npos;
    }

    // Waits for the text and returns the output up to and including it; all of the output when the program has ended.
    std::string expect(const std::string& text) {
        std::size_t at = std::string::npos;
        const bool found = wait_until([&] {
            read_more();
            at = shown_.find(text);
            return at != std::string::npos || over();
        });
        EXPECT_TRUE(found && at != std::string::npos) << "\"" << text << "\" is not shown; instead: " << shown_;
        const std::size_t end = at == std::string::npos ? shown_.size() : at + text.size();
        std::string result = shown_.substr(0, end);
        shown_.erase(0, end);
        return result;
    }

    int wait_exit(std::string* rest = nullptr) {
        EXPECT_TRUE(wait_until([&] {
            read_more();
            return over();
        })) << "it does not end";
        if (!ended_) kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
        pid_ = -1;
        if (rest != nullptr) *rest = shown_;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    // After a failure no further wait makes sense.
    bool over() const { return ended_ || testing::Test::HasFailure(); }

    void read_more() {
        pollfd ready{fd_, POLLIN, 0};
        while (!ended_ && poll(&ready, 1, 0) > 0) {
            char piece[4096];
            const ssize_t got = read(fd_, piece, sizeof piece);
            ended_ = got <= 0;
            shown_.append(piece, got > 0 ? static_cast<std::size_t>(got) : 0);
        }
    }

    int fd_ = -1;
    pid_t pid_ = -1;
    bool ended_ = false;
    std::string shown_;
};

class ClientTerminal : public testing::Test {
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
        shell("printf 'geheim\\n' | " SCHEDPASSWD_BINARY " --stdin " + suite.path("data/password"));
        suite.start();
        prompt = "127.0.0.1:" + std::to_string(suite.port) + "> ";
    }

    Suite suite;
    std::string prompt;
};

TEST_F(ClientTerminal, SessionCompletesShowsControlCharactersAndKeepsItsHistory) {
    // The file has more lines than are kept, and two sessions end one after the other.
    shell("mkdir -p " + suite.path("state/schedctl"));
    suite.write("state/schedctl/history", "_HiStOrY_V2_\n" + repeated(30000, "an\\040old\\040line\n"));
    Terminal other(suite, {SCHEDCTL_BINARY});
    other.expect(prompt);
    Terminal screen(suite, {SCHEDCTL_BINARY});
    screen.expect(prompt);
    screen.press("oddi\ttext 'two words '\n");
    screen.expect("two words \r\n");
    screen.type("oddity text '\\033[2Jevil\\tt\\303\\244g \\302\\233 \\377\\rz\\n'\n");
    screen.expect("\\x1b[2Jevil");
    screen.expect("t\xc3\xa4g \\xc2\\x9b \\xffz\r\n");
    screen.type("oddity split\n");
    screen.expect("m\xc3\xa4r\r\n");
    screen.type("no such\n");
    screen.expect("[unsupported");
    screen.press("modcntl oddity o\tff\n");  // the key lists "on" and "off"
    screen.expect("on  off");
    screen.expect(prompt);
    screen.type("oddity text x\n");
    screen.expect("[busy");
    screen.press("a dropped line\x03");
    screen.expect("^C");
    screen.type("lock\nshow ip\n");
    screen.expect("locked=1");
    screen.press("\x04");
    screen.expect("quit");
    EXPECT_EQ(screen.wait_exit(), 0);
    suite.await_trace("by quit command.");
    other.press("debug timer\n\x04");
    EXPECT_EQ(other.wait_exit(), 0);
    EXPECT_LT(suite.read("state/schedctl/history").size(), 100000U);

    Terminal named(suite, {SCHEDCTL_BINARY, "-u", "otto"});
    named.expect("otto@" + prompt);
    named.press("\x1b[A\x1b[A\n");  // the last line of the first session, before that of the other
    named.expect("user=otto");
    named.expect(prompt);
    named.get_signal(SIGTERM);
    EXPECT_EQ(named.wait_exit(), 0);

    Terminal piped(suite, {"/bin/sh", "-c", SCHEDCTL_BINARY " | cat"});
    piped.expect("reading commands from the terminal");
    piped.type("odd text answer\n");
    piped.expect("answer\r\n");
}

TEST_F(ClientTerminal, InterruptEndsTheWaitAndTheSessionGoesOn) {
    Terminal screen(suite, {SCHEDCTL_BINARY});
    screen.expect(prompt);
    // The rest of the answer arrives while the next line is typed, and is dropped.
    screen.type("odd wait " + suite.path("go1") + "\n");
    screen.expect("begin\r\n");
    screen.type("\x03");
    screen.expect("[stopped waiting]");
    screen.expect(prompt);
    screen.type("sta");
    suite.write("go1", "");
    EXPECT_EQ(screen.expect("(the answer given up earlier is complete)").find("y\r\ny"), std::string::npos);
    screen.type("tus\n");
    screen.expect("confdate");
    // A second interrupt closes the connection, and the session goes on with a new one.
    screen.type("odd wait " + suite.path("go2") + "\n");
    screen.expect("begin\r\n");
    screen.type("\x03");
    screen.expect(prompt);
    screen.type("status\n");
    screen.expect("(waiting for the answer");
    screen.type("\x03");
    screen.expect("the connection is closed");
    screen.type("status\n");
    screen.expect("confdate");
    suite.write("go2", "");
    // The scheduler ends and is started again.
    screen.expect(prompt);
    suite.stop();
    screen.expect("(the scheduler closed the connection)");
    for (int i = 0; i < 2; i++) {
        screen.type("status\n");
        EXPECT_EQ(screen.expect("Connection refused]").find("closed"), std::string::npos);
        screen.expect(prompt);
    }
    suite.start();
    screen.type("status\n");
    screen.expect("confdate");
}

// Bytes that no request asked for, and a connection that is closed before the first answer.
TEST_F(ClientTerminal, NewConnectionOfASessionOwesNothingToTheOldOne) {
    const int port = free_port();
    const ScriptedScheduler scheduler(
        port, {{{"modcntl", over}, {"status", over + "left over"}}, {{"status", "new\r\n" + over}}, {}});
    Terminal screen(suite, {SCHEDCTL_BINARY, "-p", std::to_string(port)});
    screen.expect("> ");
    screen.type("status\n");
    screen.expect("(the scheduler closed the connection)");
    screen.type("status\n");
    EXPECT_EQ(screen.expect("new\r\n").find("left over"), std::string::npos);
    screen.expect("(the scheduler closed the connection)");
    screen.type("status\n");
    screen.expect("its table of connections may be full");
}

// The scheduler is stopped by a signal: the kernel accepts connections, and no answer comes.
TEST_F(ClientTerminal, StalledSchedulerEndsInATimeOut) {
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    Terminal status(suite, {SCHEDCTL_BINARY, "status"});
    Terminal session(suite, {SCHEDCTL_BINARY, "-u", "otto"});
    session.expect("no completion of module names: no answer in time");
    session.expect(prompt);
    EXPECT_EQ(status.wait_exit(), 206);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 10s);
    kill(frozen, SIGCONT);
    session.type("quit\n");
    EXPECT_EQ(session.wait_exit(), 0);

    // Signals that keep coming do not prolong a time-out.
    Terminal resized(suite, {SCHEDCTL_BINARY, "-t", "2"});
    resized.expect(prompt);
    resized.type("odd wait " + suite.path("never") + "\n");
    resized.expect("begin\r\n");
    unsigned short rows = 20;
    EXPECT_TRUE(wait_until([&] {
        resized.resize(rows = rows == 20 ? 21 : 20, 70);
        return resized.shows("[no answer in time]");
    }));
    suite.write("never", "");
    // An answer that was given up and does not come in time is not taken for that of the next command.
    resized.type("odd wait " + suite.path("later") + "\n");
    resized.expect("begin\r\n");
    resized.type("\x03");
    resized.expect("[stopped waiting]");
    resized.type("status\n");
    resized.expect("confdate");
}

TEST_F(ClientTerminal, PasswordsAreAskedAgainAndNeverShown) {
    Terminal screen(suite, {SCHEDCTL_BINARY});
    screen.expect(prompt);
    screen.type("ipset 10.0.0.5\nshow ip\n");
    std::string seen;
    for (const char* given : {"\x03", "falsch\n"}) {  // interrupted, wrong
        seen += screen.expect("Password for 127.0.0.1: ");
        screen.press(given);
        seen += screen.expect("[login refused: ");
        screen.expect(prompt);
        screen.type("show ip\n");
    }
    screen.expect("Password for ");
    screen.press("geheim\n");
    seen += screen.expect("ip=10.0.0.5");
    EXPECT_EQ(seen.find("falsch"), std::string::npos);
    EXPECT_EQ(seen.find("geheim"), std::string::npos);

    const std::string before = suite.read("data/password");
    for (const char* again : {"anders", "neu"}) {
        Terminal passwd(suite, {SCHEDPASSWD_BINARY, suite.path("data/password")});
        passwd.expect("New password: ");
        passwd.press("neu\n");
        passwd.expect("New password: ");  // "Verifying - ..."
        passwd.press(again + "\n"s);
        EXPECT_EQ(passwd.wait_exit(&seen), again == "neu"s ? 0 : 2) << seen;
        EXPECT_EQ(seen.find(again), std::string::npos);
        EXPECT_EQ(suite.read("data/password") != before, again == "neu"s);
    }
}

TEST_F(ClientTerminal, WatchShowsChangesReconnectsAndRestoresTheTerminal) {
    Terminal screen(suite, {SCHEDCTL_BINARY, "watch", "-n", "1"});
    screen.expect("confdate ");
    suite.event("E0101:fan \x1b[31m 3 stopped\n");
    screen.expect("error ");
    screen.expect("-04:30  ");
    EXPECT_LE(screen.expect("s").size(), 3U);  // its age, in seconds
    screen.expect("E0101:fan \\x1b[31m 3");
    screen.resize(6, 70);
    suite.event("E0103:a\nE0104:b\nE0107:c\n");
    screen.expect("prevent, diag, conf");
    screen.expect("Messages: 4");
    screen.expect("E0107:c");
    screen.resize(9, 30);
    screen.expect("  Ctr\x1b");  // the heading, cut at the new width
    suite.stop();
    screen.expect("no connection");
    suite.start();
    while (screen.expect("Messages: 4").find("no connection") != std::string::npos) continue;
    screen.press("typed\x1a");  // not shown; Ctrl-Z restores the terminal, and the job goes on here
    EXPECT_EQ(screen.expect("\x1b[?1049l").find("typed"), std::string::npos);
    screen.expect("\x1b[?1049h");
    screen.press("q");
    std::string rest;
    EXPECT_EQ(screen.wait_exit(&rest), 0);
    EXPECT_TRUE(screen.echoes());
    EXPECT_TRUE(in_order(rest, {"\x1b[?1049l", "E0101:fan \\x1b[31m 3 stopped\r\n"}));

    Terminal plain(suite, {SCHEDCTL_BINARY, "-t", "2", "watch", "-n", "1"}, "dumb");
    plain.expect("condition confdate set\r\n");
    suite.event("E0102:one\n");
    std::string shown = plain.expect("message E0102:one\r\n");
    EXPECT_NE(shown.find("condition error set"), std::string::npos);
    Client other = suite.client();
    other.ask("parts\tclear");
    shown = plain.expect("condition error cleared\r\n");
    EXPECT_EQ(shown.find("confdate"), std::string::npos);  // only changes are shown
    const std::size_t events = suite.events().size();
    suite.event("W0104:queued\n");  // at the latest the answer that comes late brings it
    suite.await_events(events + 1);
    const pid_t frozen = suite.scheduler();
    kill(frozen, SIGSTOP);
    shown = plain.expect("disconnected: no answer in time");
    kill(frozen, SIGCONT);
    shown += plain.expect(" connected\r\n");
    suite.event("I0110:next\n");
    shown += plain.expect("message I0110:next\r\n");
    EXPECT_THAT(shown, HasSubstr("message W0104:queued\r\n"));
    suite.stop();
    plain.expect("disconnected: ");
    plain.type("\x03");
    EXPECT_EQ(plain.wait_exit(), 0);
}

TEST_F(ClientTerminal, WatchOfSeveralHostsCountsSortsAndFilters) {
    Suite second;
    second.start();
    const std::string a = "127.0.0.1:" + std::to_string(suite.port);
    const std::string b = "127.0.0.1:" + std::to_string(second.port);
    Terminal screen(suite, {SCHEDCTL_BINARY, "-H", a + "," + b, "watch", "-n", "1"});
    screen.resize(12, 100);
    screen.expect("2 hosts, 2 ok");
    screen.expect(a + "  ok");
    second.event("E0101:fan \x1b[31m 3 stopped\n");
    EXPECT_TRUE(in_order(screen.expect("E0101:fan \\x1b[31m"), {"2 hosts, 1 error, 1 ok", b + "  error "}));
    screen.expect(a + "  ok");
    suite.stop();
    screen.expect("2 hosts, 1 down, 1 error");
    EXPECT_TRUE(in_order(screen.expect(b + "  error "), {a + "  down ", ", since 20", ": "}));
    suite.start();
    while (screen.expect("2 hosts, 1 ").find("down") != std::string::npos) continue;
    screen.press("/FAN");
    screen.expect("/FAN_  1 shown");
    screen.press("\x7f\x7f\x7f" + a + "\n");
    screen.expect("/" + a + "  1 shown");
    screen.resize(2, 20);  // the heading and the first host, the others a line further down
    screen.press("\x1b");
    screen.expect(b.substr(0, 20));
    screen.press("\x1b[B\x1b[B");
    screen.expect(a.substr(0, 20));
    screen.press("\x1b[A");
    screen.expect(b.substr(0, 20));
    screen.press("q");
    std::string rest;
    EXPECT_EQ(screen.wait_exit(&rest), 0);
    EXPECT_TRUE(in_order(rest, {"\x1b[?1049l", b + ": 20", " E0101:fan \\x1b[31m 3 stopped\r\n"}));

    Terminal plain(suite, {SCHEDCTL_BINARY, "-H", a + "," + b, "watch", "-n", "1"}, "dumb");
    plain.expect(b + ": 20");
    plain.expect("condition error set\r\n");
    suite.event("E0102:one\n");
    plain.expect(a + ": 20");
    plain.expect("message E0102:one\r\n");
    suite.stop();
    plain.expect("disconnected: ");
    suite.start();
    plain.expect(" connected\r\n");
    plain.type("\x03");
    EXPECT_EQ(plain.wait_exit(), 0);
}

}  // namespace
