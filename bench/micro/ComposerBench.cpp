#include "OurParse.h"
#include "http/HttpClient.h"
#include "slp/SlpComposer.h"

#include <benchmark/benchmark.h>

namespace orvexd::bench {
namespace {

void composeHeaderPart(benchmark::State& state) {
    const auto queue = makeQueue(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        std::string text;
        composeSlpHeaderPart("boundary", queue, HttpClient::getConfiguration(), text);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(state.range(0) * state.iterations());
}

void writePartHeader(benchmark::State& state) {
    const std::string boundary(70, 'b');
    for (auto _ : state) {
        const auto queue = makeQueue();
        queue.front()->writePartHeader(boundary);
    }
}

BENCHMARK(composeHeaderPart)->ArgName("requests")->Arg(1)->Arg(100)->Arg(10000);
BENCHMARK(writePartHeader);

} // namespace
} // namespace orvexd::bench
