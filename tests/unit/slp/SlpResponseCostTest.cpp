// What the parser costs, as numbers that do not depend on the machine: this file's definitions of
// two library functions stand in front of the libraries' own for the whole program, count and pass
// on.

#include "slp/ResponseFixture.h"
#include "slp/TextSearch.h"

#include <cstddef>
#include <cstring>
#include <dlfcn.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orvexd {
namespace {

using namespace test;

/// What this thread has asked for.
struct CallCounts {
    std::size_t bytesSearched = 0; ///< bytes that memmem had to look at
    std::size_t recordLocks = 0;   ///< calls of g_rec_mutex_lock: operations on request records
};

CallCounts& callCounts() noexcept {
    static thread_local CallCounts counts;
    return counts;
}

template <typename Function> Function* nextDefinition(const char* name) noexcept {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace
} // namespace orvexd

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" void* memmem(const void* text, std::size_t textSize, const void* needle,
                        std::size_t needleSize) noexcept {
    using Memmem = void*(const void*, std::size_t, const void*, std::size_t);
    static auto* const next = orvexd::nextDefinition<Memmem>("memmem");
    void* found = next(text, textSize, needle, needleSize);
    const auto position = static_cast<const char*>(found) - static_cast<const char*>(text);
    orvexd::callCounts().bytesSearched +=
        found == nullptr ? textSize : static_cast<std::size_t>(position) + needleSize;
    return found;
}

extern "C" void g_rec_mutex_lock(GRecMutex* mutex) {
    static auto* const next = orvexd::nextDefinition<void(GRecMutex*)>("g_rec_mutex_lock");
    ++orvexd::callCounts().recordLocks;
    next(mutex);
}

namespace orvexd {
namespace {

using SlpResponseCost = SlpResponse;
using SlpResponseBodyCost = SlpResponseBody;

TEST(NextOccurrenceCost, SearchesTheTextOnceForAllQuestions) {
    const std::string text(1000, '.');
    NextOccurrence next(text, "ab");
    const std::size_t before = callCounts().bytesSearched;
    for (std::size_t from = 0; from < text.size(); ++from) {
        EXPECT_EQ(next.from(from), std::string_view::npos);
    }
    EXPECT_EQ(callCounts().bytesSearched - before, text.size());
}

TEST_F(SlpResponseCost, SearchesTheHeadOnceWhenItArrivesLineByLine) {
    const std::string line = "X-Header: value\r\n";
    const std::size_t before = callCounts().bytesSearched;
    feed("HTTP/1.1 200 OK\r\n");
    for (int count = 0; count < 10000; ++count) {
        feed(line);
    }
    EXPECT_LT(callCounts().bytesSearched - before, std::size_t{2} * 10000 * line.size());
}

TEST_F(SlpResponseCost, SearchesAChunkFullOfDelimitersAFewTimesOnly) {
    feed("HTTP/1.1 200 OK\r\nContent-Type: m; start=s; boundary=x\r\n\r\n");
    std::string chunk;
    while (chunk.size() < 16384) {
        chunk += "--x";
    }
    const std::size_t before = callCounts().bytesSearched;
    for (int count = 0; count < 10; ++count) {
        feed(chunk);
    }
    EXPECT_LT(callCounts().bytesSearched - before, std::size_t{10} * 4 * chunk.size());
}

TEST_F(SlpResponseCost, SearchesAChunkOfManySmallPartsAFewTimesOnly) {
    feed("HTTP/1.1 200 OK\r\nContent-Type: m; start=s; boundary=x\r\n\r\n");
    std::string chunk;
    while (chunk.size() < 16384) {
        chunk += "--x\r\n\r\n\r\n";
    }
    chunk += "--x--";
    const std::size_t before = callCounts().bytesSearched;
    for (int count = 0; count < 10; ++count) {
        feed(chunk);
    }
    EXPECT_LT(callCounts().bytesSearched - before, std::size_t{10} * 5 * chunk.size());
}

TEST_F(SlpResponseBodyCost, SearchesALongPartOnceForItsDelimiter) {
    begin(1);
    feed(startPart({"a"}) + part("a", ""));
    const std::string chunk(16384, '-');
    const std::size_t before = callCounts().bytesSearched;
    for (int count = 0; count < 64; ++count) {
        feed(chunk);
    }
    EXPECT_EQ(callCounts().bytesSearched - before, 64 * chunk.size());
}

TEST_F(SlpResponseBodyCost, SearchesALongStartPartOnceForItsDelimiter) {
    feed("--bb\r\nContent-Id: s\r\n\r\n");
    const std::string chunk(16384, ' ');
    const std::size_t before = callCounts().bytesSearched;
    for (int count = 0; count < 64; ++count) {
        feed(chunk);
    }
    EXPECT_EQ(callCounts().bytesSearched - before, 64 * chunk.size());
}

TEST_F(SlpResponseBodyCost, AsksAFewRequestsOnlyForEachOfTenThousandParts) {
    constexpr std::size_t kCount = 10000;
    begin(kCount);
    std::vector<std::string> ids;
    for (std::size_t index = 0; index < kCount; ++index) {
        ids.push_back("id" + std::to_string(index));
    }
    feed(startPart(ids) + "\r\n--bb");
    const std::size_t before = callCounts().recordLocks;
    for (const std::string& id : ids) {
        feed(part(id, "data").substr(6) + "\r\n--bb");
    }
    EXPECT_LT(callCounts().recordLocks - before, 10 * kCount);
    finish();
    expectNoError();
}

} // namespace
} // namespace orvexd
