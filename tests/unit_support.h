// What the unit tests share: a scratch suite directory with the scheduler's record in it, and threads.
#pragma once

#include "comm/hmi_table.h"
#include "sched/startup.h"
#include "table.h"
#include "util/clock.h"
#include "util/unique_fd.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace unit {

namespace fs = std::filesystem;
using testing::AllOf, testing::EndsWith, testing::HasSubstr, testing::Not, testing::StartsWith;

constexpr std::size_t trace_prefix = 33;  // characters of "date time thr:id "

// The alphabet repeated, so that the last characters of a cut text show where it was cut.
inline std::string pattern(std::size_t length) {
    std::string text;
    while (text.size() < length) text += "abcdefghijklmnopqrstuvwxyz";
    return text.substr(0, length);
}

inline void set_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

// Runs body(0) to body(count - 1) at the same time.
template <typename Body>
void in_threads(int count, Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
    for (std::thread& thread : threads) thread.join();
}

// Two connected sockets: that of the code under test, and its peer's.
struct Sockets {
    explicit Sockets(int type = SOCK_STREAM) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, type, 0, ends), 0);
        mine.reset(ends[0]);
        peer.reset(ends[1]);
    }
    // What the peer gets until the other end is closed.
    std::string received() const {
        std::string all;
        char some[65536];
        for (ssize_t got; (got = recv(peer.get(), some, sizeof some, 0)) > 0;)
            all.append(some, static_cast<std::size_t>(got));
        return all;
    }
    // Writes until the peer's buffer has no space left.
    void fill() const {
        const std::string filler(65536, 'x');
        while (send(mine.get(), filler.data(), filler.size(), MSG_DONTWAIT) > 0) {}
    }
    unique_fd mine, peer;
};

// Ends a test that hangs, and says so.
class Watchdog {
public:
    Watchdog() {
        const char* seconds = std::getenv("TEST_PATIENCE");
        std::thread([test = ++current_, patience = seconds != nullptr ? std::atoi(seconds) : 300] {
            std::this_thread::sleep_for(std::chrono::seconds(patience));
            if (test != current_) return;
            std::fputs("the test hangs\n", stderr);
            std::abort();
        }).detach();
    }
    ~Watchdog() { ++current_; }

private:
    static inline std::atomic<int> current_{0};
};

// A suite directory and a record of the test's own. The record is never freed, so under a leak checker each test needs
// a process of its own, as ctest runs them.
struct Scratch : testing::Test {
    Scratch() {
        for (const char* name : {"bin", "config", "data", "log", "temp", "update"}) {
            fs::create_directory(path(name));
            setenv((std::string("VGD_") + name).c_str(), path(name).c_str(), 1);
        }
        setenv("VGD_PIPE", path("pipe").c_str(), 1);
        set_zone("UTC0");
        init_sched();
        EXPECT_EQ(hmistruc_init(), 0);
    }
    ~Scratch() override { fs::remove_all(dir); }
    std::string path(const std::string& name) const { return dir + "/" + name; }
    void write(const std::string& name, const std::string& text) const { std::ofstream(path(name)) << text; }
    std::string read(const std::string& name) const {
        std::ifstream file(path(name));
        return {std::istreambuf_iterator<char>(file), {}};
    }
    // What a shell command, run in the directory, prints.
    std::string shell(const std::string& command) const {
        EXPECT_EQ(std::system(("cd " + dir + "; exec >out; " + command).c_str()) & 0x7f, 0) << command;
        return read("out");
    }
    // The messages traced since the last call.
    std::string trace() const {
        std::ifstream lines(path("log/sched_log"));
        fs::remove(path("log/sched_log"));
        std::string all;
        for (std::string line; std::getline(lines, line);)
            all += line.substr(std::min(trace_prefix, line.size())) + "\n";
        return all;
    }
    static void await(const std::string& what, const std::function<bool()>& condition) {
        const deadline limit(20'000);
        while (!condition() && limit.left_ms() > 0) usleep(1'000);
        EXPECT_GT(limit.left_ms(), 0) << "waited in vain for: " << what;
    }
    void await_trace(const char* text) const {
        await(text, [&] { return read("log/sched_log").find(text) != std::string::npos; });
    }
    // Writes a module program in shell; $D is the suite directory.
    void program(const std::string& name, const std::string& script) const {
        write("bin/" + name, "#!/bin/sh\nD=" + dir + "\n" + script + "\n");
        fs::permissions(path("bin/" + name), fs::perms::owner_all);
    }
    Watchdog watchdog;
    std::string name_template = testing::TempDir() + "sched-unit-XXXXXX";
    const std::string dir = mkdtemp(name_template.data());
};

}  // namespace unit
