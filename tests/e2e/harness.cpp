#include "e2e/harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <netinet/tcp.h>
#include <poll.h>
#include <regex>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace e2e {

namespace fs = std::filesystem;

// Notes the call, then runs the script that the test has set for this module and argument.
static constexpr const char* suite_script = R"(name=${0##*/}
echo "$name${1:+ $*}" >> "$VGD_temp/calls"
[ -f "$VGD_temp/$name.$1" ] && . "$VGD_temp/$name.$1"
exit 0)";

static unique_fd tcp_socket() { return unique_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)); }

// bind() or connect() with an address in text.
static bool with_address(int (*call)(int, const sockaddr*, socklen_t), const unique_fd& fd, const std::string& address,
                         int port) {
    const sockaddr_in where{AF_INET, htons(static_cast<std::uint16_t>(port)), {inet_addr(address.c_str())}, {}};
    return call(fd.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0;
}

bool wait_until(const std::function<bool()>& condition, milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    bool holds = condition();
    for (; !holds && std::chrono::steady_clock::now() < end; holds = condition()) std::this_thread::sleep_for(5ms);
    return holds;
}

testing::AssertionResult in_order(const std::string& text, std::initializer_list<std::string> parts) {
    std::size_t place = 0;
    for (const std::string& part : parts) {
        place = text.find(part, place);
        if (place == std::string::npos)
            return testing::AssertionFailure() << "missing, or in the wrong order: \"" << part << "\"\n" << text;
        place += part.size();
    }
    return testing::AssertionSuccess();
}

std::string repeated(int count, const std::string& text) {
    std::string result;
    for (int i = 0; i < count; i++) result += text;
    return result;
}

int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at++) count++;
    return count;
}

std::string mask_dates(const std::string& text) {
    static const std::regex date("[0-9]{4}(-[0-9]{2}){2}T[0-9:]{8}[+-][0-9:]{5}|[0-9]{4}(/[0-9]{2}){2} [0-9:]{8}");
    return std::regex_replace(text, date, "DATE");
}

std::string expected_status(const std::string& rows, const std::string& lines) {
    std::string result = "confdate  DATE\r\n";
    std::istringstream words(rows);
    for (std::string row; words >> row;) result += row + std::string(10 - row.size(), ' ') + "DATE\r\n";
    return result + lines + over;
}

std::string shell(const std::string& command) {
    std::string result;
    FILE* const pipe = popen(command.c_str(), "re");
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;) result += static_cast<char>(c);
    pclose(pipe);
    return result;
}

std::string of_process(pid_t pid, const std::string& command) {
    return shell("cd /proc/" + std::to_string(pid) + " && " + command);
}

std::string sha256_hex(const std::string& text) { return shell("printf %s '" + text + "' | sha256sum").substr(0, 64); }

// Ports lie below the range that the system gives to outgoing connections. Each process claims a block of twenty by
// binding its first port, so that no test that runs at the same time takes a port that is to stay unused.
int free_port() {
    static const unique_fd claim = tcp_socket();
    static int next = [] {
        int block = static_cast<int>(getpid() % 600);
        while (!with_address(bind, claim, "0.0.0.0", 20000 + block * 20)) block = (block + 1) % 600;
        return 20000 + block * 20;
    }();
    while (!with_address(bind, tcp_socket(), "0.0.0.0", ++next)) EXPECT_LT(next, 32768);
    return next;
}

unique_fd listen_on(int port, int backlog) {
    unique_fd fd = tcp_socket();
    const int on = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_TRUE(with_address(bind, fd, "127.0.0.1", port) && listen(fd.get(), backlog) == 0);
    return fd;
}

// ---- Client ----------------------------------------------------------------------------------------------------

Client::Client(int port, const std::string& source, int receive_buffer) : fd_(tcp_socket()) {
    const int on = 1;
    setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // each send is a packet of its own
    if (receive_buffer > 0) setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    EXPECT_TRUE(with_address(bind, fd_, source, 0) && with_address(connect, fd_, "127.0.0.1", port)) << source;
}

Client::Client(const unique_fd& listener) {
    pollfd ready{listener.get(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, static_cast<int>(patience.count())), 1) << "no connection";
    fd_.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
}

void Client::reset() {
    const linger hard{1, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    fd_.reset();
}

bool Client::more() {
    static std::array<char, 1 << 16> piece;
    pollfd ready{fd_.get(), POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, static_cast<int>(patience.count())), 1) << "nothing more after: " << buffer_;
    const ssize_t got = recv(fd_.get(), piece.data(), piece.size(), MSG_DONTWAIT);
    EXPECT_GE(got, 0) << strerror(errno) << " after: " << buffer_;
    buffer_.append(piece.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return got > 0;
}

std::string Client::answer() {
    constexpr std::string_view ends[] = {"__over__ ",         "__timeout__\r", "__busy__\r",
                                         "__unsupported__\r", "__unauth__ ",   "Good-bye.\r"};
    for (std::size_t line = 0;;) {
        const std::size_t next = buffer_.find('\n', line) + 1;
        if (next == 0 && !more()) {
            ADD_FAILURE() << "the connection ended after: " << buffer_;
            return std::exchange(buffer_, {});
        }
        if (next == 0) continue;
        for (const std::string_view end : ends)
            if (buffer_.compare(line, end.size(), end) == 0)
                return std::exchange(buffer_, buffer_.substr(next)).substr(0, next);
        line = next;
    }
}

std::string Client::ask(std::string_view line) {
    send(std::string(line) + "\r");
    return answer();
}

std::string Client::ask(std::initializer_list<std::string_view> lines) {
    std::string answers;
    for (const std::string_view line : lines) answers += ask(line);
    return answers;
}

std::string Client::rest() {
    while (more()) {}
    return std::exchange(buffer_, {});
}

// ---- Suite -----------------------------------------------------------------------------------------------------

Suite::Suite() {
    for (const int number : {SIGINT, SIGHUP}) signal(number, SIG_DFL);  // clients keep what the parent ignores
    EXPECT_NE(mkdtemp(dir_.data()), nullptr) << dir_;
    for (const char* name : {"bin", "config", "temp", "update", "data", "log"}) {
        fs::create_directory(path(name));
        env["VGD_"s + name] = path(name);
    }
    env["VGD_PIPE"] = path("pipe");
    EXPECT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    setenv("XDG_STATE_HOME", path("state").c_str(), 1);  // what the client stores does not go to the user's own files
    // A detached scheduler has its standard error on /dev/null, so reports go into files.
    for (const char* options : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* const usual = std::getenv(options);
        env[options] = (usual != nullptr ? usual : ""s) + ":log_path=" + path("sanitizer");
    }
    for (const char* name :
         {"allmodcall", "parts", "prognosis", "diag", "devconf", "confchg", "analysis", "qmx", "ehello"})
        module(name, suite_script);
    for (const char* word : {"status", "modcntl", "debug", "quit", "restart", "lock", "unlock", "show", "hello",
                             "login", "ipset", "send", "res_data", "res_send"})
        listed(word + " - - 0"s);
}

Suite::~Suite() {
    stop();
    if (testing::Test::HasFailure()) std::cerr << shell("cd " + dir_ + "; tail -n 60 log/sched_log stdout stderr");
    const char* const reports = "; cat sanitizer* 2> /dev/null; grep -s -A 99 Sanitizer stderr";
    EXPECT_EQ(*SCHED_SANITIZE != '\0' ? shell("cd " + dir_ + reports) : "", "");
    std::error_code problem;  // a process that is just ending may still write there
    EXPECT_TRUE(wait_until([&] { return fs::remove_all(dir_, problem), !problem; })) << problem.message();
}

void Suite::write(const std::string& name, std::string_view text) const {
    EXPECT_TRUE(std::ofstream(path(name), std::ios::binary) << text << std::flush) << name;
}

std::string Suite::read(const std::string& name) const {
    std::ostringstream text;
    text << std::ifstream(path(name), std::ios::binary).rdbuf();
    return text.str();
}

void Suite::module(const std::string& name, const std::string& script, int timeout) const {
    write("bin/" + name, "#!/bin/sh\n" + script + "\n");
    chmod(path("bin/" + name).c_str(), 0755);
    listed(name + " " + name + " - " + std::to_string(timeout));
}

void Suite::listed(const std::string& line) const {
    write("config/vgd_modules", read("config/vgd_modules") + line + "\n");
}

std::string Suite::calls(int from) const {
    std::istringstream lines(read("temp/calls"));
    std::string result;
    for (std::string line; std::getline(lines, line); from--)
        result += from > 1 ? "" : (result.empty() ? "" : ",") + line;
    return result;
}

void Suite::launch(const strings& args) {
    strings words = wrapper;
    words.push_back(SCHED_BINARY);
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    pid = fork();
    if (pid != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // the daemon ends with the test
    for (const int signal_number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE})
        signal(signal_number, SIG_DFL);  // the parent of the tests may ignore them
    for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
    for (int fd = 0; fd < 64; fd++) close(fd);
    for (const std::string& file : {"/dev/null"s, path("stdout"), path("stderr")})
        open(file.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND, 0600);
    const rlimit limit{descriptors, descriptors};
    if (descriptors > 0) setrlimit(RLIMIT_NOFILE, &limit);
    execvp(argv[0], argv.data());
    _exit(127);
}

void Suite::start(const strings& args) {
    strings full = {"-p", std::to_string(port), "-N", "0"};  // the arguments override these
    full.insert(full.end(), args.begin(), args.end());
    for (const char* trace : {"log/sched_log", "stdout"}) fs::remove(path(trace));  // of an earlier start
    launch(full);
    EXPECT_TRUE(wait_until([&] {
        if (waitpid(pid, nullptr, WNOHANG) == pid) pid = -1;
        return pid < 0 || traced("Info:sched:accepting socket = ");
    }));
    EXPECT_GT(pid, 0) << "the daemon has ended";
}

int Suite::wait_exit(milliseconds deadline) {
    int status = 0;
    const bool ended = wait_until([&] { return waitpid(pid, &status, WNOHANG) != 0; }, deadline);
    EXPECT_TRUE(ended) << "the daemon does not end";
    if (!ended) send_signal(pid, SIGKILL);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Outcome Suite::command(const std::string& command, const std::string& input) const {
    write("in", input);
    const std::string environment = "VGD_data=" + path("data") + " SCHED_PORT=" + std::to_string(port) +
                                    " XDG_STATE_HOME=" + path("state") + " exec setsid -w timeout -s KILL 30 ";
    const std::string files = " <" + path("in") + " >" + path("o") + " 2>" + path("e");
    const int status = std::system((environment + command + files).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), read("o"), read("e")};
}

void Suite::stop() {
    const std::string last = "/proc/" + read("log/sched.pid") + "/exe";
    if (pid > 0) {
        kill(pid, SIGTERM);
        wait_exit();
    }
    std::error_code gone;
    if (fs::read_symlink(last, gone) == fs::canonical(SCHED_BINARY))
        send_signal(scheduler(), SIGKILL);  // its supervisor has been killed
}

void Suite::fake_clock(int speed, double shown) {
    using seconds = std::chrono::duration<double>;
    clock_real_ = seconds(std::chrono::system_clock::now().time_since_epoch()).count();
    clock_shown_ = shown != 0 ? shown : clock_real_;
    clock_speed_ = speed;
    env["LD_PRELOAD"] = FAST_CLOCK_LIBRARY;
    env["FAST_CLOCK"] = path("temp/clock");
    env["TZ"] = "UTC";
    set_clock(0);
}

void Suite::hurry() {
    if (!std::string_view(SCHED_SANITIZE).empty()) return;
    fake_clock(4);
    env["FAST_MONOTONIC"] = "yes";
}

void Suite::set_clock(int offset) const {
    write("temp/clock.new", std::to_string(clock_real_) + " " + std::to_string(clock_shown_ + offset) + " " +
                                std::to_string(clock_speed_));
    fs::rename(path("temp/clock.new"), path("temp/clock"));  // the daemon reads it at any moment
}

std::vector<Client> Suite::thirty_two() const {
    std::vector<Client> clients;
    for (int i = 0; i < 32; i++) {
        clients.push_back(client());
        EXPECT_EQ(clients.back().ask("nosuch"), unsupported);
    }
    return clients;
}

void Suite::event(std::string_view bytes) const {
    // Opened for reading too: without a daemon the test fails but does not hang.
    const unique_fd pipe(open(path("pipe").c_str(), O_RDWR | O_CLOEXEC));
    EXPECT_EQ(::write(pipe.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

strings Suite::events() const {
    strings result;
    for (const char* generation : {".3", ".2", ".1", ".0", ""}) {
        std::istringstream log(read("log/event_log"s + generation));
        for (std::string line; std::getline(log, line);)
            result.push_back(line.erase(0, std::string_view("2026/01/31 12:00:00 : ").size()));
    }
    return result;
}

void Suite::await_events(std::size_t count) const {
    EXPECT_TRUE(wait_until([&] { return events().size() >= count; }));
    EXPECT_EQ(events().size(), count);
}

void Suite::raise(const std::string& text) const {
    const std::size_t before = events().size();
    event(text + "\n");
    await_events(before + 1);
}

void Suite::await_trace(const std::string& text, milliseconds deadline) const {
    EXPECT_TRUE(wait_until([&] { return traced(text); }, deadline)) << "not traced: " << text;
}

}  // namespace e2e
