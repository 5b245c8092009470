#include "command/dispatch.h"
#include "command/module_table.h"
#include "command/runner.h"
#include "unit_support.h"

#include <csignal>

namespace unit {

struct Command : Scratch {
    // What a module list gives: "name,entrypath,display,timeout " for each entry.
    std::string entries(const std::string& list) const {
        write("config/vgd_modules", list);
        EXPECT_EQ(read_modules(), 0);
        std::string all;
        for (const module_entry* e = mod; e < mod + mod_max; all += e->enabled == 1 ? " " : "!", ++e)
            all = all + e->name + "," + e->entrypath + "," + e->display + "," + std::to_string(e->timeout) +
                  (is_internal(e->name) != 0 ? "i" : "") + (is_external(e->name) != 0 ? "x" : "");
        return all;
    }
    int run(const std::string& script, char* capture, int size) const {
        program("m", script);
        char* argv[] = {const_cast<char*>("m"), nullptr};
        const mutex_guard guard(com_lock);
        const int status = start_command(path("bin/m").c_str(), -1, 1, argv, "", capture, size);
        sigset_t mask;
        struct sigaction action {};
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        sigaction(SIGALRM, nullptr, &action);
        EXPECT_TRUE(sigismember(&mask, SIGALRM) == 1 && action.sa_handler == SIG_IGN);  // as it was found
        return status;
    }
};

TEST_F(Command, ModuleLists) {
    for (const auto& [list, expected] :
         rows(" -> |# p p p 1\n\nParts p p 1\n1p p p 1\n p p p 1\n\tp p p 1\n -> |a b c 1 -> a,b,c,1x |"
              "a b c 4294967297\nd b c -99999999999999999999\n -> a,b,c,2147483647x d,b,c,-2147483648x |"
              "a\t -b \t- -7 rest\nb b - +5x\n -> a,-b,-,-7i b,b,-,5x |"
              "a b c 1\na - e 2\n -> a,b,c,1x a,-,e,2x |"
              "long b show 70%.rest b show 8\n -> long,b,show,70x rest,b,show,8x |"
              "long b show 7 %.89 r -> long,b,show,7x |short a b\nbad a b x\ngood a b 0 -> good,a,b,0x ",
              std::string(495, ' ')))
        EXPECT_EQ(entries(list), expected) << list;
    EXPECT_THAT(trace(), HasSubstr("Warning:modules:invalid line. \"short a b\n"));
    std::string hundred;
    for (int i = 0; i < 100; ++i) hundred += "m b c " + std::to_string(i) + "\n";
    EXPECT_THAT(entries(hundred), EndsWith(",99x "));
    EXPECT_THAT(trace(), Not(HasSubstr("Warning")));
    EXPECT_THAT(entries(hundred + "m b c 100\n"), EndsWith(",99x "));
    EXPECT_THAT(trace(), HasSubstr("Warning:modules:"));
    EXPECT_EQ(set_module("m", 0), 1);
    EXPECT_EQ(set_module("m", 2), 0);
    EXPECT_EQ(is_modulebusy("m", nullptr), 1);
    EXPECT_EQ(get_timeout("m"), 0);
    EXPECT_EQ(get_timeout("M") + set_module("M", 0) + is_modulebusy("M", nullptr), 1 - 1);
    for (const char* change : {"rm config/vgd_modules", "mkfifo config/vgd_modules"}) {
        shell(change);
        EXPECT_EQ(read_modules(), -1) << change;
    }
}

TEST_F(Command, RefusesMoreThanFifteenWordsOfAnybody) {
    EXPECT_EQ(entries("m m - 9\n"), "m,m,-,9x ");
    program("m", "echo $# >>$D/calls");
    EXPECT_EQ(do_command(nullptr, "m\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5", 1), 0);
    EXPECT_EQ(do_command(nullptr, "m\t1\t2\t3\t4\t5\t6\t7\t8\t9\t1\t2\t3\t4\t5\t6", 1), -1);
    EXPECT_THAT(trace(), HasSubstr("Error:command:too many arguments (16, max=15) \"m\"\n"));
    EXPECT_EQ(read("calls"), "14\n");
}

TEST_F(Command, CapturesTheFirstBytes) {
    EXPECT_EQ(run("sleep 600 & sleep 600", nullptr, 0), 9);  // the time-out leaves signals as they were, too
    for (const std::size_t size : {1000U, 5000U, 0U, 6000U}) {
        const std::string script = "head -c 4000 /dev/zero; head -c 1000 /dev/zero; touch $D/end; exit 3";
        std::string buffer(6001, '#');
        EXPECT_EQ(run(script, buffer.data(), static_cast<int>(size)), 0x300);
        const std::size_t stored = std::min<std::size_t>(size, 5000);
        EXPECT_EQ(buffer, std::string(stored, '\0') + std::string(6001 - stored, '#'));
        EXPECT_TRUE(fs::remove(path("end"))) << "it did not run to its end";
    }
}

TEST_F(Command, ParkedOnesRunInSlotOrderBeforeTheNextInLine) {
    EXPECT_NE(entries("slow slow - 60\nnote note - 0\n"), "");
    program("note", "echo \"$1\" >>$D/calls");
    program("slow", "echo slow >>$D/calls; while [ ! -e $D/go ]; do sleep .01; done");
    in_threads(3, [&](int thread) {
        if (thread == 0) {
            EXPECT_EQ(do_command(nullptr, "slow", 0), 0);
        } else if (thread == 1) {
            await_trace("command:\"slow\" \n");
            for (const char* line : {"note\t7", "note\t30", "note\t1", "note\t3", "note\t3 again"})
                EXPECT_EQ(do_command(nullptr, line, std::atoi(line + 5)), -1);
            EXPECT_EQ(do_command_with_buffer("note\tnext", nullptr, 0), 0);
        } else {
            await_trace("command_buffer:\"note next");
            write("go", "");
        }
    });
    EXPECT_EQ(read("calls"), "slow\n1\n3\n7\n30\nnext\n");
}

}  // namespace unit
