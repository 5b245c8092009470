// The client as a program: with its output as text, and at a pseudo-terminal.
#pragma once

#include "e2e/harness.h"

#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace e2e {

class ClientTest : public testing::Test {
protected:
    // What the client prints on both outputs, then "code" and its exit code: 124 when it hangs.
    std::string ctl(const std::string& arguments) const {
        return shell(environment() + "timeout " + limit + " " SCHEDCTL_BINARY " " + arguments +
                     " 2>&1 </dev/null; echo code $?");
    }

    std::string environment() const {
        return "export VGD_data=" + suite.path("data") + " XDG_STATE_HOME=" + suite.path("state") +
               " SCHED_PORT=" + std::to_string(suite.port) + "; ";
    }

    int connections() const { return occurrences(suite.trace(), ") is coming"); }  // since the start

    const std::string limit = std::to_string(patience / 1s);
    Suite suite;
};

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

    pid_t pid() const { return pid_; }
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

}  // namespace e2e
