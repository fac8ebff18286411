#include "Bodies.h"
#include "http/LineEnds.h"

#include <benchmark/benchmark.h>
#include <cstring>

namespace orvexd::bench {
namespace {

/// A slice as the read callback takes it, and libcurl's buffer.
constexpr std::size_t kSlice = 64500;
constexpr std::size_t kBuffer = 65524;

void normalizeSlices(benchmark::State& state) {
    const std::string text = makeText(kSlice, static_cast<std::size_t>(state.range(0)));
    std::string buffer(kBuffer, '\0');
    std::string overflow;
    for (auto _ : state) {
        benchmark::DoNotOptimize(normalizeLineEnds(text, buffer, overflow));
        overflow.clear();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
}

void copySlices(benchmark::State& state) {
    const std::string text = makeText(kSlice, 40);
    std::string buffer(kBuffer, '\0');
    for (auto _ : state) {
        std::memcpy(buffer.data(), text.data(), text.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(text.size()) * state.iterations());
}

BENCHMARK(normalizeSlices)->ArgName("line")->Arg(0)->Arg(2)->Arg(40)->Arg(400);
BENCHMARK(copySlices);

} // namespace
} // namespace orvexd::bench
