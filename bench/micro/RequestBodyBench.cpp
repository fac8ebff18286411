#include "Bodies.h"
#include "OurParse.h"
#include "http/HttpClient.h"
#include "http/IExchangeOwner.h"
#include "http/RequestBody.h"

#include <benchmark/benchmark.h>

namespace orvexd::bench {
namespace {

class SilentOwner : public IExchangeOwner {
public:
    std::string proxyForServer() override { return {}; }
    void postRequestData(std::uint32_t /*connection*/, std::uint32_t /*request*/) override {}
    void announceConnectionStatus() override {}
    void postMemoryShort() override {}
    void onExchangeFailed(int /*code*/, const std::string& /*text*/,
                          const std::string& /*keys*/) override {}
    void onExchangeFinished() override {}
};

/// One sendData of 64 KiB and the read callbacks that take it.
void readCallback(benchmark::State& state, const char* encoding) {
    const auto queue = makeQueue(1, encoding);
    SilentOwner owner;
    DataSignal signal;
    RequestBody body(queue, "boundary", "prefix", signal, owner, HttpClient::getConfiguration());
    std::string buffer(65524, '\0'); // libcurl's
    (void)body.readBody(buffer);     // the prefix
    const std::string data = makeText(65536, 40);
    for (auto _ : state) {
        queue.front()->appendRequestData(data, false);
        signal.notifyData();
        benchmark::DoNotOptimize(body.readBody(buffer));
        benchmark::DoNotOptimize(body.readBody(buffer));
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(data.size()) * state.iterations());
}

BENCHMARK_CAPTURE(readCallback, binary, "binary");
BENCHMARK_CAPTURE(readCallback, text, "8bit");

} // namespace
} // namespace orvexd::bench
