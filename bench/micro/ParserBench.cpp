#include "GMimeParse.h"
#include "OurParse.h"
#include "Yardsticks.h"

#include <benchmark/benchmark.h>

namespace orvexd::bench {
namespace {

constexpr std::size_t kPiece = std::size_t{16} * 1024;

Response responseOf(const benchmark::State& state) {
    return makeResponse(static_cast<std::size_t>(state.range(0)),
                        static_cast<std::size_t>(state.range(1)));
}

void countBytes(benchmark::State& state, const Response& response) {
    state.SetBytesProcessed(static_cast<std::int64_t>(response.body.size()) * state.iterations());
}

void responseParser(benchmark::State& state) {
    const Response response = responseOf(state);
    const auto pieces = cutResponse(response, kPiece);
    for (auto _ : state) {
        if (!parseOurs(response, pieces)) {
            state.SkipWithError("not parsed");
        }
    }
    countBytes(state, response);
}

void gmime(benchmark::State& state) {
    const Response response = responseOf(state);
    const std::string message = makeGMimeMessage(response);
    for (auto _ : state) {
        if (!parseGMime(response, message)) {
            state.SkipWithError("not parsed");
        }
    }
    countBytes(state, response);
}

void copyOnly(benchmark::State& state) {
    const Response response = responseOf(state);
    const auto pieces = cutResponse(response, kPiece);
    for (auto _ : state) {
        benchmark::DoNotOptimize(copyThroughBlock(pieces));
    }
    countBytes(state, response);
}

void searchOnly(benchmark::State& state) {
    const Response response = responseOf(state);
    const auto pieces = cutResponse(response, kPiece);
    for (auto _ : state) {
        benchmark::DoNotOptimize(searchPieces(pieces));
    }
    countBytes(state, response);
}

void shapes(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"parts", "bytes"})
        ->Args({1, 64 * kMiB})
        ->Args({10000, 4096})
        ->Unit(benchmark::kMillisecond);
}

BENCHMARK(responseParser)->Apply(shapes);
BENCHMARK(gmime)->Apply(shapes);
BENCHMARK(copyOnly)->Apply(shapes);
BENCHMARK(searchOnly)->Apply(shapes);

} // namespace
} // namespace orvexd::bench
