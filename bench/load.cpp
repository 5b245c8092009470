// The measuring clients. Each run prints one JSON object, or an error on standard error.
//   load commands PORT SECONDS PAUSE_US LINE   sends LINE again and again, waiting for each answer
//   load stream PORT BYTES                     one "stream" command, read as fast as its output comes
//   load events PIPE SECONDS                   event lines of 64 bytes, until the reader has taken the last
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using clock_type = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

constexpr std::size_t event_line_size = 64;
constexpr std::size_t event_block_lines = 64;  // one block is PIPE_BUF: never torn between writers
constexpr double stall_us = 35000.0;           // a delayed acknowledgement costs 40 ms

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int connect_to(const char* port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(std::atoi(port)));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        fail("connect");
    }
    return fd;
}

bool is_terminator(std::string_view line) {
    return line.starts_with("__over__ ") || line == "__timeout__\r\n" || line == "__busy__\r\n" ||
           line == "__unsupported__\r\n";
}

// Sends one line and reads to the end of its answer. Returns the answer's size in bytes.
std::size_t exchange(int fd, std::string_view line) {
    static std::array<char, 262144> buffer;
    const std::string request = std::string(line) + "\r\n";
    if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size())) {
        fail("write");
    }
    std::size_t total = 0;
    std::string tail;  // the end of the answer so far: longer than any terminating line
    do {
        const ssize_t got = read(fd, buffer.data(), buffer.size());
        if (got <= 0) {
            fail("connection ended in an answer");
        }
        const auto size = static_cast<std::size_t>(got);
        total += size;
        const std::size_t kept = std::min<std::size_t>(size, 64);
        tail.append(buffer.data() + size - kept, kept);
        tail.erase(0, tail.size() > 64 ? tail.size() - 64 : 0);
        // rfind returns npos when the answer is only this line, and npos + 1 is its start.
    } while (!tail.ends_with('\n') ||
             !is_terminator(std::string_view(tail).substr(tail.rfind('\n', tail.size() - 2) + 1)));
    return total;
}

int run_commands(const char* port, double duration, long pause_us, std::string_view line) {
    const int fd = connect_to(port);
    exchange(fd, line);  // not measured: page faults and cold caches slow the first one on both sides
    std::vector<double> times;
    const auto start = clock_type::now();
    auto before = start;
    while (seconds(before - start).count() < duration) {
        exchange(fd, line);
        const auto after = clock_type::now();
        times.push_back(seconds(after - before).count() * 1e6);
        if (pause_us > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(pause_us));
        }
        before = clock_type::now();
    }
    const double rate = static_cast<double>(times.size()) / seconds(before - start).count();
    std::sort(times.begin(), times.end());
    std::printf("{\"rate\": %.1f, \"median_us\": %.1f, \"p99_us\": %.1f, \"max_us\": %.1f, \"stalls\": %td}\n", rate,
                times[times.size() / 2], times[times.size() * 99 / 100], times.back(),
                times.end() - std::lower_bound(times.begin(), times.end(), stall_us));
    return 0;
}

int run_stream(const char* port, const char* bytes) {
    const int fd = connect_to(port);
    const auto start = clock_type::now();
    exchange(fd, std::string("stream\t") + bytes);
    std::printf("{\"rate\": %.1f}\n", std::atof(bytes) / 1e6 / seconds(clock_type::now() - start).count());
    return 0;
}

int run_events(const char* pipe, double duration) {
    const int fd = open(pipe, O_WRONLY | O_CLOEXEC);
    std::string block;
    for (std::size_t i = 0; i < event_block_lines; ++i) {
        std::string line = "ALL;E0001:bench line " + std::to_string(i) + " ";
        line.resize(event_line_size - 1, '.');
        block += line + '\n';
    }
    const auto start = clock_type::now();
    std::size_t lines = 0;
    for (; seconds(clock_type::now() - start).count() < duration; lines += event_block_lines) {
        if (write(fd, block.data(), block.size()) != static_cast<ssize_t>(block.size())) {
            fail(pipe);
        }
    }
    int waiting = 1;
    while (ioctl(fd, FIONREAD, &waiting) == 0 && waiting > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    std::printf("{\"rate\": %.1f}\n", static_cast<double>(lines) / seconds(clock_type::now() - start).count());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode == "commands" && argc == 6) {
        return run_commands(argv[2], std::atof(argv[3]), std::atol(argv[4]), argv[5]);
    }
    if (mode == "stream" && argc == 4) {
        return run_stream(argv[2], argv[3]);
    }
    if (mode == "events" && argc == 4) {
        return run_events(argv[2], std::atof(argv[3]));
    }
    std::fputs("usage: load commands PORT SECONDS PAUSE_US LINE | stream PORT BYTES | events PIPE SECONDS\n", stderr);
    return 1;
}
