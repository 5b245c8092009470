// The cost of one call of each hot routine.
#include "comm/hmi_table.h"
#include "comm/line_reader.h"
#include "sha256/sha256.h"
#include "state/sched_status.h"
#include "timer/job_field.h"
#include "trace/trace.h"
#include "util/text.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

void parse_job_field(benchmark::State& state) {
    const char* const fields[] = {"* ", "0 ", "*/5 ", "0,5,10-20/2,30-59 "};
    const char* const field = fields[state.range(0)];
    state.SetLabel(field);
    for (auto _ : state) {
        std::uint8_t slots[62] = {};
        set_job_field(field, slots, sizeof slots);
        benchmark::DoNotOptimize(slots);
    }
}
BENCHMARK(parse_job_field)->DenseRange(0, 3);

// Includes the files and their rotation: a stat, an open, a write and a close, and the same again with a level word.
void trace_one_line(benchmark::State& state) {
    const std::string_view level = state.range(0) != 0 ? "Info:" : "";
    state.SetLabel(level.empty() ? "trace only" : "both traces");
    for (auto _ : state) {
        trprintf("%scommand:\"%s\" end. status=%x\n", level.data(), "parts", 0U);
    }
}
BENCHMARK(trace_one_line)->Arg(0)->Arg(1);

void enqueue_for_all(benchmark::State& state) {
    const bool full = state.range(1) != 0;
    const std::string text = "E0001:" + std::string(static_cast<std::size_t>(state.range(0)), 'x');
    std::vector<hmistruc*> clients;
    while (hmistruc* const client = hmistruc_get()) {
        clients.push_back(client);
    }
    state.SetLabel(std::to_string(clients.size()) + (full ? " clients, rings full" : " clients, rings not full"));
    for (auto _ : state) {
        hmistruc_all_enqueue(text.c_str());
        for (hmistruc* const client : clients) {
            client->out = full ? (client->in + 1) % ring_slots : client->in;
        }
    }
    for (hmistruc* const client : clients) {
        hmistruc_put(*client);
    }
}
BENCHMARK(enqueue_for_all)->Args({40, 0})->Args({40, 1})->Args({1000, 0});

void read_request(benchmark::State& state) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
        state.SkipWithError("socketpair");
        return;
    }
    const std::string line(static_cast<std::size_t>(state.range(0)), 'x');
    const std::string request = line + "\r\n";
    static char text[line_max];
    line_reader reader(ends[1]);
    for (auto _ : state) {
        if (write(ends[0], request.data(), request.size()) != static_cast<ssize_t>(request.size()) ||
            reader.read_line(text, sizeof text) != static_cast<int>(line.size())) {
            state.SkipWithError("read_line");
        }
    }
    close(ends[0]);
    close(ends[1]);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(request.size()));
}
BENCHMARK(read_request)->Arg(12)->Arg(1000);

void digest(benchmark::State& state) {
    const std::string data(static_cast<std::size_t>(state.range(0)), 'x');
    sha256_ctx context;
    for (auto _ : state) {
        sha256_reset(&context);
        sha256_process_bytes(&context, data.data(), data.size());
        sha256_checksum(&context);
        benchmark::DoNotOptimize(context.digest);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(digest)->Arg(72)->Arg(1 << 20);

}  // namespace

int main(int argc, char** argv) {
    char directory[] = "/tmp/sched-micro-XXXXXX";
    st = new (std::nothrow) sched_status{};
    if (st == nullptr || hmistruc_init() != 0 || mkdtemp(directory) == nullptr) {
        return 1;
    }
    format_text(st->event_log_path, "%s/event_log", directory);
    trinit((std::string(directory) + "/sched_log").c_str());
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::filesystem::remove_all(directory);
    return 0;
}
