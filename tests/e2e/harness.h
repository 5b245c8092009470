// Tools of the tests that run the real daemon: a suite directory with a scheduler, and clients of its line protocol.
// Each test has its own scratch directory and its own ports on loopback.
#pragma once

#include "table.h"
#include "util/unique_fd.h"

#include <gmock/gmock.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <map>
#include <signal.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <vector>

namespace e2e {

using std::chrono::milliseconds;
using namespace std::chrono_literals;
using namespace std::string_literals;
using strings = std::vector<std::string>;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

inline const std::string over = "__over__ 0 0\r\n";
inline const std::string refused = "__over__ 1 0\r\n";
inline const std::string busy = "__busy__\r\n";
inline const std::string unsupported = "__unsupported__\r\n";
inline const std::string goodbye = "Good-bye.\r\n";

// How long any wait may take before it is a failure: sanitizer builds on a busy machine are slow. The program that
// plants faults has less.
inline const milliseconds patience =
    std::chrono::seconds(std::getenv("TEST_PATIENCE") != nullptr ? std::atoi(std::getenv("TEST_PATIENCE")) : 60);

bool wait_until(const std::function<bool()>& condition, milliseconds deadline = patience);
// Success when the text holds all parts, in this order.
testing::AssertionResult in_order(const std::string& text, std::initializer_list<std::string> parts);
std::string repeated(int count, const std::string& text);
int occurrences(const std::string& text, const std::string& part);
// Every date of an answer as DATE, so that the rest can be compared byte for byte.
std::string mask_dates(const std::string& text);
// The answer to `status` with confdate, these rows ("error korvo"), and then these lines.
std::string expected_status(const std::string& rows, const std::string& lines = "");
std::string shell(const std::string& command);                  // what it prints
std::string of_process(pid_t pid, const std::string& command);  // the same, run in the process's directory of /proc
std::string sha256_hex(const std::string& text);
int free_port();
unique_fd listen_on(int port, int backlog = 8);

// One operator's connection. A read that takes longer than `patience` fails the test.
class Client {
public:
    explicit Client(int port, const std::string& source = "127.0.0.1", int receive_buffer = 0);
    explicit Client(const unique_fd& listener);  // the other side: accepts the next connection

    void send(std::string_view bytes) const { ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL); }
    void end_sending() const { shutdown(fd_.get(), SHUT_WR); }       // answers still arrive
    void reset();                                                    // closes with a TCP reset
    std::string answer();                                            // up to and including the line that ends it
    std::string ask(std::string_view line);                          // sends the line with a CR and returns the answer
    std::string ask(std::initializer_list<std::string_view> lines);  // one after the other; all answers
    std::string rest();  // up to the end of the connection; a reset fails the test

private:
    bool more();  // false at the end

    unique_fd fd_;
    std::string buffer_;
};

struct Outcome {
    int code;  // exit code, or 128 and the signal
    std::string out, err;
};

// Not kill(): the pid of a daemon that does not run is -1, which would be all processes of the machine.
inline void send_signal(pid_t pid, int number) {
    ASSERT_GT(pid, 0) << "no process to send signal " << number << " to";
    kill(pid, number);
}

class Suite {
public:
    Suite();
    ~Suite();  // ends the daemon, fails the test when a sanitizer reported anything, removes the directory
    Suite(const Suite&) = delete;
    Suite& operator=(const Suite&) = delete;

    // Files, by their path below the scratch directory.
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    void write(const std::string& name, std::string_view text) const;
    std::string read(const std::string& name) const;
    void settings(const std::string& line) const { write("config/sched.conf", "[sched]\n" + line + "\n"); }

    // Adds a module program in shell and lists it. The list already has all internal words and allmodcall, parts,
    // prognosis, diag, devconf, confchg, analysis, qmx and ehello. Those modules note their call, run the script that
    // react() set for "module.argument", and exit with 0.
    void module(const std::string& name, const std::string& script, int timeout = 60) const;
    void listed(const std::string& line) const;
    void react(const std::string& what, const std::string& script) const { write("temp/" + what, script + "\n"); }
    // The calls from this number on, with commas: "parts status,diag status". Start-up makes the first three.
    std::string calls(int from = 4) const;

    // Runs a shell command without a terminal, so that no password can be typed. One that hangs is killed: code 137.
    Outcome command(const std::string& command, const std::string& input = "") const;

    // The daemon. start() returns when it accepts connections, run() when it has ended.
    void start(const strings& args = {"-D"});
    int run(const strings& args, milliseconds deadline = patience) { return launch(args), wait_exit(deadline); }
    int wait_exit(milliseconds deadline = patience);  // exit code, or 128 and the signal
    void stop();                                      // the supervisor's scheduler too
    pid_t scheduler() const { return std::atoi(read("log/sched.pid").c_str()); }

    Client client(const std::string& source = "127.0.0.1") const { return Client(port, source); }
    std::vector<Client> thirty_two() const;    // clients, all served
    void event(std::string_view bytes) const;  // written to the event pipe in one write
    std::string status(Client& client) const { return mask_dates(client.ask("status")); }
    strings events() const;  // the texts of the event log, all generations, oldest first
    void await_events(std::size_t count) const;
    void raise(const std::string& text) const;  // an event line; returns when the daemon has queued it
    std::string out() const { return read("stdout"); }
    std::string trace() const { return read("log/sched_log") + out(); }
    // Some lines are written after the answer, so this waits for them.
    void expect_trace(std::initializer_list<std::string> parts) const {
        wait_until([&] { return static_cast<bool>(in_order(trace(), parts)); });
        EXPECT_TRUE(in_order(trace(), parts));
    }
    bool traced(const std::string& text) const { return trace().find(text) != std::string::npos; }
    void await_trace(const std::string& text, milliseconds deadline = patience) const;

    // Gives the daemon a wall clock of its own (UTC), which runs so many times as fast from now on. It shows the time
    // `shown` (seconds since 1970), or without it the present time.
    void fake_clock(int speed, double shown = 0);

    // Lets the daemon's ten seconds of patience pass in less than three. Not with a sanitizer, which reads the clock of
    // time limits itself while it holds its locks.
    void hurry();

    // Sets this clock to what it would show if it had begun so many seconds later, or earlier.
    void set_clock(int offset) const;

    std::map<std::string, std::string> env;  // of the daemon, besides the test's own
    strings wrapper;                         // a command put before the daemon's
    unsigned long descriptors = 0;           // RLIMIT_NOFILE of the daemon when not 0
    int port = free_port();
    pid_t pid = -1;

private:
    void launch(const strings& args);

    std::string dir_ = testing::TempDir() + "sched-e2e-XXXXXX";
    double clock_real_ = 0;  // the moment at which the daemon's own clock shows the next one
    double clock_shown_ = 0;
    int clock_speed_ = 1;
};

}  // namespace e2e
