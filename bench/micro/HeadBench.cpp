#include "http/Boundary.h"
#include "slp/ResponseHead.h"
#include "slp/TextSearch.h"

#include <benchmark/benchmark.h>

namespace orvexd::bench {
namespace {

constexpr std::string_view kHead =
    "HTTP/1.1 200 OK\r\nServer: slp\r\nDate: Fri, 10 Oct 2014 11:09:36 GMT\r\n"
    "Content-Type: multipart/related; type=\"text/xml\"; boundary=\"answer_0123456789abcdef\"; "
    "start=\"start\"\r\nContent-Length: 12345\r\nConnection: close";
constexpr std::string_view kPartHead =
    "\r\nContent-Type: application/octet-stream\r\nContent-Transfer-Encoding: binary\r\n"
    "Content-Id: a12345";

void parseHead(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(parseResponseHead(kHead));
    }
}

void findHeader(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(headerValue(kPartHead, "content-id"));
    }
}

void missHeader(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(headerValue(kPartHead, "x-slp-next-part-id"));
    }
}

void searchIgnoringCase(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(findIgnoringCase(kHead, "content-type"));
    }
}

void makeBoundary(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(generateBoundary());
    }
}

BENCHMARK(parseHead);
BENCHMARK(findHeader);
BENCHMARK(missHeader);
BENCHMARK(searchIgnoringCase);
BENCHMARK(makeBoundary);

} // namespace
} // namespace orvexd::bench
