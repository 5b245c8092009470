#include "command/dispatch.h"
#include "command/module_table.h"
#include "command/runner.h"
#include "unit_support.h"
#include "util/unique_fd.h"

#include <csignal>
#include <sys/socket.h>
#include <sys/time.h>
#include <tuple>

namespace unit {

struct Command : Scratch {
    // The entries of a module list: name, program, display field, time-out, whether it is external.
    using Entry = std::tuple<std::string, std::string, std::string, int, bool>;
    std::vector<Entry> entries(const std::string& list) const {
        write("config/vgd_modules", list);
        EXPECT_EQ(read_modules(), 0);
        std::vector<Entry> all;
        for (const module_entry* e = mod; e < mod + mod_max; ++e) {
            EXPECT_EQ(e->enabled, 1);
            EXPECT_EQ(is_internal(e->name), 1 - is_external(e->name));
            all.emplace_back(e->name, e->entrypath, e->display, e->timeout, is_external(e->name) != 0);
        }
        return all;
    }
    int run(const std::string& script, char* capture, int size, unsigned timeout = 60) const {
        program("m", script);
        char* argv[] = {const_cast<char*>("m"), nullptr};
        const mutex_guard guard(com_lock);
        const int status = start_command(path("bin/m").c_str(), -1, timeout, argv, "", capture, size);
        sigset_t mask;
        struct sigaction action {};
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        sigaction(SIGALRM, nullptr, &action);
        EXPECT_EQ(sigismember(&mask, SIGALRM), 1);  // both unchanged
        EXPECT_EQ(action.sa_handler, SIG_IGN);
        return status;
    }
};

TEST_F(Command, BadOrLongLineOfTheModuleListCostsOnlyItself) {
    const std::string fill(495, ' ');
    const Row<std::string, std::vector<Entry>> cases[] = {
        {"empty", "", {}},
        {"no small letter first", "# p p p 1\n\nParts p p 1\n1p p p 1\n p p p 1\n\tp p p 1\n", {}},
        {"no newline", "a b c 1", {{"a", "b", "c", 1, true}}},
        {"last letter", "z b c 1\n", {{"z", "b", "c", 1, true}}},
        {"time-outs beyond an int",
         "a b c 4294967297\nd b c -99999999999999999999\n",
         {{"a", "b", "c", 2147483647, true}, {"d", "b", "c", -2147483648, true}}},
        {"internal, tabs, text after it",
         "a\t -b \t- -7 rest\nb b - +5x\n",
         {{"a", "-b", "-", -7, false}, {"b", "b", "-", 5, true}}},
        {"same name twice", "a b c 1\na - e 2\n", {{"a", "b", "c", 1, true}, {"a", "-", "e", 2, true}}},
        {"rest of a long line is an entry",
         "long b show 70" + fill + ".rest b show 8\n",
         {{"long", "b", "show", 70, true}, {"rest", "b", "show", 8, true}}},
        {"rest of a long line is no entry", "long b show 7 " + fill + ".89 r", {{"long", "b", "show", 7, true}}},
        {"short and bad lines", "short a b\nbad a b x\ngood a b 0", {{"good", "a", "b", 0, true}}},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        EXPECT_EQ(entries(row.given), row.wanted);
    }
    EXPECT_THAT(trace(), HasSubstr("Warning:modules:invalid line. \"short a b\n"));
    for (const auto& [change, error] : {std::pair{"rm config/vgd_modules", 2}, {"mkfifo config/vgd_modules", 6}}) {
        shell(change);
        EXPECT_EQ(read_modules(), -1) << change;
        EXPECT_THAT(trace(), EndsWith("Error:modules:open error.(errno=" + std::to_string(error) + ")\n")) << change;
    }
}

TEST_F(Command, ModuleTableIsFullAfterAHundredAndKnowsOnlyItsOwnWords) {
    std::string hundred;
    for (int i = 0; i < 100; ++i) hundred += "m b c " + std::to_string(i) + "\n";
    EXPECT_EQ(entries(hundred).size(), 100U);
    EXPECT_THAT(trace(), Not(HasSubstr("Warning")));
    EXPECT_EQ(entries(hundred + "m b c 100\n").size(), 100U);
    EXPECT_THAT(trace(), HasSubstr("Warning:modules:"));
    EXPECT_EQ(set_module("m", 0), 1);
    EXPECT_EQ(set_module("m", 2), 0);
    EXPECT_EQ(is_modulebusy("m", nullptr), 1);
    EXPECT_EQ(get_timeout("m"), 0);
    EXPECT_EQ(get_timeout("M"), 1);
    EXPECT_EQ(set_module("M", 0), -1);
    EXPECT_EQ(is_modulebusy("M", nullptr), 0);
}

TEST_F(Command, MoreThanFifteenWordsAreRefused) {
    ASSERT_EQ(entries("m m - 9\n").size(), 1U);
    program("m", "echo $# >>$D/calls");
    EXPECT_EQ(do_command(nullptr, "m\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5", 1), 0);
    EXPECT_EQ(do_command(nullptr, "m\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5\t6", 1), -1);
    EXPECT_THAT(trace(), HasSubstr("Error:command:too many arguments (16, max=15) \"m\"\n"));
    EXPECT_EQ(do_command(nullptr, "x\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5\t6", 1), -1);  // not listed
    EXPECT_THAT(trace(), HasSubstr("Error:command:unsupported command \"x\"\n"));
    EXPECT_EQ(read("calls"), "14\n");
}

TEST_F(Command, CaptureStopsAtItsSizeAndTheProgramRunsToItsEnd) {
    EXPECT_EQ(run("sleep 600 & sleep 600", nullptr, 0, 1), 9);  // a time-out leaves the signals unchanged, too
    for (const std::size_t size : {1000U, 5000U, 0U, 6000U}) {
        const std::string script = "head -c 4000 /dev/zero; head -c 1000 /dev/zero; touch $D/end; exit 3";
        std::string buffer(6001, '#');
        EXPECT_EQ(run(script, buffer.data(), static_cast<int>(size)), 0x300);
        const std::size_t stored = std::min<std::size_t>(size, 5000);
        EXPECT_EQ(buffer, std::string(stored, '\0') + std::string(6001 - stored, '#'));
        EXPECT_TRUE(fs::remove(path("end"))) << "the program did not run to its end";
    }
}

// The connection has no space for the terminating line until after the program has ended.
TEST_F(Command, TimeThatTheProgramTakesIsNotTakenFromAClientThatReadsLate) {
    program("m", "echo x; exec >&-; sleep 5.2; : >$D/end");
    char* argv[] = {const_cast<char*>("m"), nullptr};
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const unique_fd mine(ends[0]);
    const unique_fd peer(ends[1]);
    std::string received(1 << 24, '\0');
    std::size_t length = 0;
    const auto receive = [&] {
        const ssize_t got = recv(peer.get(), &received[length], received.size() - length, 0);
        length += static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        return got > 0;
    };
    in_threads(2, [&](int thread) {
        if (thread == 0) {
            const mutex_guard guard(com_lock);
            EXPECT_EQ(start_command(path("bin/m").c_str(), mine.get(), 9, argv, "", nullptr, 0), 0);
            shutdown(mine.get(), SHUT_WR);
            return;
        }
        EXPECT_TRUE(receive());
        const std::string filler(65536, 'x');
        while (send(mine.get(), filler.data(), filler.size(), MSG_DONTWAIT) > 0) {}
        await("the end of the program", [&] { return fs::exists(path("end")); });
        usleep(300'000);  // by then the terminating line waits
        while (receive()) {}
    });
    received.resize(length);
    EXPECT_THAT(received, EndsWith("x__over__ 0 0\r\n"));
}

// The time-out ends a write, and the rest of the output is lost.
TEST_F(Command, TimeOutInTheMiddleOfALineEndsTheLine) {
    program("m", "exec yes 123456789");
    char* argv[] = {const_cast<char*>("m"), nullptr};
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const unique_fd mine(ends[0]);
    const unique_fd peer(ends[1]);
    const int small = 4096;
    ASSERT_EQ(setsockopt(mine.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    std::string received(1 << 16, '\0');
    std::size_t length = 0;
    std::thread reader([&] {
        await_trace("Error:command:timeout");
        for (ssize_t got = 1; got > 0; length += static_cast<std::size_t>(got))
            got = recv(peer.get(), &received[length], received.size() - length, 0);
    });
    {
        const mutex_guard guard(com_lock);
        // In the first thread, which gets the alarm.
        EXPECT_EQ(start_command(path("bin/m").c_str(), mine.get(), 1, argv, "", nullptr, 0), 9);
    }
    shutdown(mine.get(), SHUT_WR);
    reader.join();
    received.resize(length);
    EXPECT_THAT(received.substr(length - 30), EndsWith("\r\n__timeout__\r\n"));
}

TEST_F(Command, DelayedCommandsRunInSlotOrderBeforeTheNextOne) {
    ASSERT_EQ(entries("slow slow - 0\nnote note - 0\n").size(), 2U);
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
