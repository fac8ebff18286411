#include "OurParse.h"
#include "request/RequestData.h"

#include <benchmark/benchmark.h>

namespace orvexd::bench {
namespace {

class Receiver : public IChunkReceiver {
public:
    void postChunk(std::uint32_t /*connection*/, std::uint32_t /*request*/, DeliveryCode /*code*/,
                   std::string bytes) override {
        last_ = std::move(bytes);
        benchmark::DoNotOptimize(last_.data());
    }

private:
    std::string last_;
};

/// Pieces of 16 KiB arrive, the client fetches a chunk whenever there is a whole one.
void deliverChunks(benchmark::State& state) {
    const auto chunk = static_cast<std::uint32_t>(state.range(0));
    Receiver receiver;
    const auto queue = makeQueue(1, "binary", chunk, &receiver);
    RequestData& request = *queue.front();
    request.addExpectedPartId("a");
    const std::string piece(16384, 'p');
    std::size_t stored = 0;
    for (auto _ : state) {
        request.addResponseData(piece, false);
        for (stored += piece.size(); stored >= chunk; stored -= chunk) {
            request.requestNextChunk();
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(piece.size()) * state.iterations());
}

BENCHMARK(deliverChunks)->ArgName("chunk")->Arg(1024)->Arg(65536)->Arg(1048576);

} // namespace
} // namespace orvexd::bench
