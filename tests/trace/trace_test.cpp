#include "trace/trace.h"

#include "unit_support.h"
#include "util/unique_fd.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace unit {

struct Trace : Scratch {
    void log(const std::string& text) const {
        trprintf("%s\n", text.c_str());
        event_log(text.c_str());
    }
};

TEST_F(Trace, LongLinesAreCutAndEachLineHasLocalTime) {
    set_zone("XST-9:30");
    char thread[32];
    std::snprintf(thread, sizeof thread, " thr:%08x ", thread_id());
    for (const std::size_t length : {40U, 506U, 507U, 508U, 509U, 510U, 511U, 512U, 600U, 5000U}) {
        for (const std::string name : {"log/sched_log", "log/event_log"}) {
            const std::string prefix = name == "log/sched_log" ? thread : " : ";
            const std::string text = prefix + pattern(length - 20 - prefix.size());
            fs::remove(path(name));
            log(text.substr(prefix.size()));
            const std::string line = read(name);
            EXPECT_EQ(line.substr(19), (length <= 507 ? text : text.substr(0, 488) + "...") + "\n");
            std::tm parts{};
            ASSERT_EQ(strptime(line.c_str(), "%Y/%m/%d %H:%M:%S", &parts), line.c_str() + 19);
            EXPECT_LE(std::abs(std::mktime(&parts) - now_seconds()), 10);
        }
    }
}

TEST_F(Trace, ErrorTraceTakesExactlyTheLinesWithALevelWord) {
    const std::string fill = pattern(469);
    const Row<std::string, bool> cases[] = {
        {"Info", "Info:port 9980", true},
        {"no level word", "allowed ip address", false},
        {"capital letters", "ERROR: mismatch", false},
        {"fail", "listen failed", true},
        {"Warn inside a word", "xWarnx", true},
        {"other letter case and words in pieces", "warning info error FAIL Inf o Err\tor", false},
        {"word ends where the line is cut", fill + "Error", true},
        {"word is cut", fill + "1Error", false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row);
        trprintf("%s\n", row.given.c_str());
        EXPECT_EQ(read("log/sched_logerr"), row.wanted ? read("log/sched_log") : "");
        EXPECT_NE(trace(), "");
        fs::remove(path("log/sched_logerr"));
    }
}

TEST_F(Trace, RotatesALogOnlyAboveTheThresholdAndLosesNoGeneration) {
    umask(022);
    for (const std::string name : {"log/sched_log", "log/sched_logerr", "log/event_log"}) {
        write(name, std::string(262144, 'x'));
        log("Info");
        EXPECT_GT(read(name).size(), 262144U) << name;
        write(name, std::string(262145, 'y'));
        write(name + ".0", "zero");
        write(name + ".2", "two");
        log("Info");
        EXPECT_LT(read(name).size(), 50U) << name;
        EXPECT_EQ(read(name + ".0"), std::string(262145, 'y')) << name;
        EXPECT_EQ(read(name + ".1"), "zero") << name;
        EXPECT_EQ(read(name + ".2"), "") << name;
        EXPECT_EQ(read(name + ".3"), "two") << name;
        EXPECT_EQ(shell("stat -c %a " + name), "644\n") << name;
    }
}

TEST_F(Trace, GoesOnWithoutADirectoryOrRotationAndKeepsErrno) {
    fs::remove_all(path("log"));
    errno = EDOM;
    EXPECT_EQ(trprintf("Error:lost\n"), 0);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(trflush("lost\n"), -1);
    EXPECT_EQ(event_log("lost"), -1);
    fs::create_directories(path("log/sched_logerr"));
    EXPECT_EQ(trflush("Info:no error trace\n"), -1);
    // While no generation can be moved, lines go to the existing file, and each line tries the rotation again.
    shell("for i in 0 1 2 3; do mkdir -p log/sched_log.$i/file; done");
    write("log/sched_log", std::string(262145, 'x'));
    trprintf("a\n");
    EXPECT_EQ(read("log/sched_log").size(), 262145 + trace_prefix + 2);
    fs::remove_all(path("log/sched_log.3"));
    trprintf("b\n");
    EXPECT_EQ(trace(), "b\n");
    shell("mkfifo log/event_log");  // gets no line, and nobody waits for its reader
    EXPECT_EQ(event_log("lost"), -1);
    const unique_fd reader(open(path("log/event_log").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    EXPECT_EQ(event_log("lost"), -1);
    char byte;
    EXPECT_EQ(::read(reader.get(), &byte, 1), 0);
}

// The limit of the file size stands for a full disk: the write that reaches it is cut.
TEST_F(Trace, LineThatAFullDiskCutsIsTakenBack) {
    const std::string files[] = {"log/sched_log", "log/sched_logerr", "log/event_log"};
    const auto tried = [&](const std::string& name, const std::string& before) {
        SCOPED_TRACE(name + " with " + std::to_string(before.size()) + " bytes");
        for (const std::string& file : files) fs::remove(path(file));
        write(name, before);
        rlimit old{};
        getrlimit(RLIMIT_FSIZE, &old);
        const rlimit full{before.size() + 20, old.rlim_max};
        setrlimit(RLIMIT_FSIZE, &full);
        log("Info:lost");
        setrlimit(RLIMIT_FSIZE, &old);
        EXPECT_EQ(read(name), before);
        log("Info:kept");
        EXPECT_EQ(read(name).find("Info:lost"), std::string::npos);
        EXPECT_THAT(read(name).substr(before.size()), StartsWith("20"));
    };
    for (const std::string& name : files)
        tried(name, std::string(10'000, 'x') + "\n");       // only this one reaches the limit
    for (const std::string& name : files) tried(name, "");  // all three reach it
}

TEST_F(Trace, LinesOfSeveralThreadsStayWholeAcrossRotations) {
    in_threads(4, [](int t) {
        for (int i = 0; i < 400; ++i) trprintf("%d%s%d\n", t, pattern(300).c_str(), i);
    });
    std::istringstream lines(read("log/sched_log.1") + read("log/sched_log.0") + read("log/sched_log"));
    int next[4] = {};
    for (std::string line; std::getline(lines, line);) {
        const int t = line.at(trace_prefix) - '0';
        const std::string expected = pattern(300) + std::to_string(next[t]++);
        ASSERT_EQ(line.substr(trace_prefix + 1), expected);
    }
    EXPECT_THAT(next, testing::Each(400));
}

}  // namespace unit
