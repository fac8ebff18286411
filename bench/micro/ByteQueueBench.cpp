#include "support/ByteQueue.h"

#include <benchmark/benchmark.h>

namespace orvexd::bench {
namespace {

/// A stream that is taken as it comes.
void appendAndTakeInto(benchmark::State& state) {
    const std::string bytes(static_cast<std::size_t>(state.range(0)), 'b');
    std::string room(bytes.size(), '\0');
    ByteQueue queue;
    for (auto _ : state) {
        queue.append(bytes);
        benchmark::DoNotOptimize(queue.takeInto(room));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes.size()) * state.iterations());
}

/// Pieces of 16 KiB in, chunks out.
void appendAndTake(benchmark::State& state) {
    const std::string bytes(16384, 'b');
    const auto chunk = static_cast<std::size_t>(state.range(0));
    ByteQueue queue;
    for (auto _ : state) {
        queue.append(bytes);
        while (queue.size() >= chunk) {
            benchmark::DoNotOptimize(queue.take(chunk));
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes.size()) * state.iterations());
}

/// Nobody takes anything: 16 MiB in pieces of 16 KiB.
void fill(benchmark::State& state) {
    const std::string bytes(16384, 'b');
    for (auto _ : state) {
        ByteQueue queue;
        for (int i = 0; i < 1024; ++i) {
            queue.append(bytes);
        }
        benchmark::DoNotOptimize(queue.size());
    }
    state.SetBytesProcessed(std::int64_t{16} * 1024 * 1024 * state.iterations());
}

BENCHMARK(appendAndTakeInto)->ArgName("bytes")->Arg(1024)->Arg(65536)->Arg(1048576);
BENCHMARK(appendAndTake)->ArgName("chunk")->Arg(1024)->Arg(65536)->Arg(1048576);
BENCHMARK(fill)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace orvexd::bench
