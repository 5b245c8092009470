#include "command/dispatch.h"
#include "command/module_table.h"
#include "command/runner.h"
#include "unit_support.h"

#include <sys/time.h>

namespace unit {

struct Command : Scratch {
    void list(const std::string& modules) const {
        write("config/vgd_modules", modules);
        ASSERT_EQ(read_modules(), 0);
    }
};

TEST_F(Command, ModuleTableKnowsOnlyItsOwnWordsAndTracesWhatItLeavesOut) {
    std::string hundred;
    for (int i = 0; i < 100; ++i) hundred += "m b c " + std::to_string(i) + "\n";
    list("short a b\n" + hundred);
    EXPECT_THAT(trace(), AllOf(HasSubstr("Warning:modules:invalid line. \"short a b\n"), Not(HasSubstr("full"))));
    list(hundred + "m b c 100\nm b c 101\n");
    EXPECT_THAT(trace(), EndsWith("\" 99\nWarning:modules:table full (max=100), ignore remains\n"
                                  "Info:modules:read done. 100 entries found.\n"));
    EXPECT_EQ(get_timeout("M"), 1);
    fs::remove(path("config/vgd_modules"));
    EXPECT_EQ(read_modules(), -1);
    EXPECT_THAT(trace(), EndsWith("Error:modules:open error.(errno=2)\n"));
}

TEST_F(Command, MoreThanFifteenWordsAreRefused) {
    list("m m - 9\n");
    program("m", "echo $# >>$D/calls");
    EXPECT_EQ(do_command(nullptr, "m\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5", 1), 0);
    EXPECT_EQ(do_command(nullptr, "m\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5\t6", 1), -1);
    EXPECT_THAT(trace(), HasSubstr("Error:command:too many arguments (16, max=15) \"m\"\n"));
    EXPECT_EQ(do_command(nullptr, "x\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5\t6", 1), -1);  // not listed
    EXPECT_THAT(trace(), HasSubstr("Error:command:unsupported command \"x\"\n"));
    EXPECT_EQ(read("calls"), "14\n");
}

// The connection has no space for the terminating line until after the program has ended.
TEST_F(Command, TimeThatTheProgramTakesIsNotTakenFromAClientThatReadsLate) {
    program("m", "echo x; exec >&-; sleep 5.2; : >$D/end");
    char* argv[] = {const_cast<char*>("m"), nullptr};
    Sockets sockets;
    std::string received;
    in_threads(2, [&](int thread) {
        if (thread == 0) {
            const mutex_guard guard(com_lock);
            EXPECT_EQ(start_command(path("bin/m").c_str(), sockets.mine.get(), 9, argv, "", nullptr, 0), 0);
            shutdown(sockets.mine.get(), SHUT_WR);
            return;
        }
        char first = 0;
        EXPECT_EQ(recv(sockets.peer.get(), &first, 1, MSG_PEEK), 1);
        sockets.fill();
        await("the end of the program", [&] { return fs::exists(path("end")); });
        usleep(300'000);  // by then the terminating line waits
        received = sockets.received();
    });
    EXPECT_THAT(received, EndsWith("x__over__ 0 0\r\n"));
}

// The time-out ends a write, and the rest of the output is lost.
TEST_F(Command, TimeOutInTheMiddleOfALineEndsTheLine) {
    program("m", "exec yes 123456789");
    char* argv[] = {const_cast<char*>("m"), nullptr};
    Sockets sockets;
    const int small = 4096;
    ASSERT_EQ(setsockopt(sockets.mine.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    std::string received;
    std::thread reader([&] {
        await_trace("Error:command:timeout");
        received = sockets.received();
    });
    {
        const mutex_guard guard(com_lock);
        // In the first thread, which gets the alarm.
        EXPECT_EQ(start_command(path("bin/m").c_str(), sockets.mine.get(), 1, argv, "", nullptr, 0), 9);
    }
    shutdown(sockets.mine.get(), SHUT_WR);
    reader.join();
    EXPECT_THAT(received.substr(received.size() - 30), EndsWith("\r\n__timeout__\r\n"));
}

TEST_F(Command, DelayedCommandsRunInSlotOrderBeforeTheNextOne) {
    list("slow slow - 0\nnote note - 0\n");
    program("note", "echo \"$1\" >>$D/calls");
    program("slow", "echo slow >>$D/calls; while [ ! -e $D/go ]; do sleep .01; done");
    in_threads(3, [&](int thread) {
        if (thread == 0) {
            EXPECT_EQ(do_command(nullptr, "slow", 0), 0);
        } else if (thread == 1) {
            await_trace("command:\"slow\" \n");
            for (const char* line : {"note\t7", "note\t30", "note\t1", "note\t3", "note\t3 again"})
                EXPECT_EQ(do_command(nullptr, line, std::atoi(line + 5)), -1);
            itimerval left{};
            await("time-out", [&] { return getitimer(ITIMER_REAL, &left) == 0 && left.it_value.tv_sec > 0; });
            EXPECT_GT(left.it_value.tv_sec, 30);  // of a minute, since the list says 0
            EXPECT_EQ(do_command_with_buffer("note\tnext", nullptr, 0), 0);
        } else {
            await_trace("command_buffer:\"note next");
            write("go", "");
        }
    });
    EXPECT_EQ(read("calls"), "slow\n1\n3\n7\n30\nnext\n");
}

}  // namespace unit
