// What the fuzz targets share: a suite directory, the input as the lines of a file, and the end of a run that found a
// fault.
#pragma once

#include "sched/startup.h"
#include "state/sched_status.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Ends the run when a condition that must always hold is false; a fuzzer then keeps the input.
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

inline std::string_view text_of(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

inline std::string read_to_end(int fd) {
    std::string all;
    char piece[4096];
    for (ssize_t got; (got = read(fd, piece, sizeof piece)) > 0;) all.append(piece, static_cast<std::size_t>(got));
    return all;
}

// The scheduler's record. All its directories are one scratch directory, and its trace goes to /dev/null. Signal mask
// and alarm are restored for the fuzzer.
struct Suite {
    Suite() {
        for (const char* name : {"bin", "config", "temp", "update", "data", "log", "PIPE"})
            setenv((std::string("VGD_") + name).c_str(), dir.c_str(), 1);
        sigset_t mask;
        struct sigaction alarm {};
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        sigaction(SIGALRM, nullptr, &alarm);
        init_sched();
        sigaction(SIGALRM, &alarm, nullptr);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        st->debug = 1;
        require(std::freopen("/dev/null", "w", stdout) != nullptr, "/dev/null is opened");
    }
    ~Suite() { std::filesystem::remove_all(dir); }
    Suite(const Suite&) = delete;
    Suite& operator=(const Suite&) = delete;

    void write(const std::string& name, std::string_view text) const {
        require((std::ofstream(dir + "/" + name) << text).flush().good(), "the input is written");
    }

    char pattern[32] = "/dev/shm/sched-fuzz-XXXXXX";  // in memory, as it is written for each input
    const std::string dir = mkdtemp(pattern);
};

}  // namespace fuzz
