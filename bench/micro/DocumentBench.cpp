#include "slp/SlpDocument.h"

#include <benchmark/benchmark.h>

namespace orvexd::bench {
namespace {

std::string document(std::int64_t results) {
    std::string text = "<?xml version=\"1.0\"?>\n<SimpleLocationProtocol version=\"2.0\">\n"
                       "<SlpResponse status=\"ok\">\n";
    for (std::int64_t i = 1; i <= results; ++i) {
        const std::string number = std::to_string(i);
        text.append("<result oid=\"").append(number);
        text.append("\" href=\"cid:a").append(number).append("\"/>\n");
    }
    return text + "</SlpResponse>\n</SimpleLocationProtocol>\n";
}

void readResponseDocument(benchmark::State& state) {
    const std::string text = document(state.range(0));
    for (auto _ : state) {
        ResultMap results;
        const XmlDocument tree = readSlpDocument(text);
        if (parseSlpResponse(xmlDocGetRootElement(tree.get()), results)) {
            state.SkipWithError("not parsed");
        }
    }
    state.SetItemsProcessed(state.range(0) * state.iterations());
}

BENCHMARK(readResponseDocument)->ArgName("results")->Arg(1)->Arg(100)->Arg(10000);

} // namespace
} // namespace orvexd::bench
