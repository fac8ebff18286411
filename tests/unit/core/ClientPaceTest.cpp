#include "core/ClientPace.h"

#include "fakes/Gate.h"

#include <gtest/gtest.h>
#include <thread>

namespace orvexd::test {
namespace {

constexpr std::size_t kChunk = 65536;
constexpr std::chrono::milliseconds kShort(300);

/// How long the worker rests.
std::chrono::microseconds restOf(ClientPace& pace) {
    const gint64 begin = g_get_monotonic_time();
    pace.rest();
    return std::chrono::microseconds(g_get_monotonic_time() - begin);
}

TEST(ClientPace, LetsTwoChunksBeStoredAndAMebibyteAtLeast) {
    EXPECT_EQ(ClientPace(1).highWater(), std::size_t{1024} * 1024);
    EXPECT_EQ(ClientPace(std::size_t{4} * 1024 * 1024).highWater(), std::size_t{8} * 1024 * 1024);
}

TEST(ClientPace, DoesNotRestBelowTheHighWater) {
    ClientPace pace(kChunk, kPatience);
    pace.stored(pace.highWater() - 1);
    EXPECT_LT(restOf(pace), kPatience);
}

TEST(ClientPace, DoesNotRestForWhatHasBeenFetched) {
    ClientPace pace(kChunk, kPatience);
    for (int i = 0; i < 100; ++i) {
        pace.stored(kChunk);
        pace.taken(kChunk);
        EXPECT_LT(restOf(pace), kPatience);
    }
}

TEST(ClientPace, RestsAtTheHighWaterButNotForLong) {
    ClientPace pace(kChunk, kShort);
    pace.stored(pace.highWater());
    EXPECT_GE(restOf(pace), kShort);
}

TEST(ClientPace, RestsAgainOnlyHalfTheHighWaterLater) {
    ClientPace pace(kChunk, kShort);
    pace.stored(pace.highWater());
    pace.rest();
    EXPECT_LT(restOf(pace), kShort);
    pace.stored(pace.lowWater() - 1);
    EXPECT_LT(restOf(pace), kShort);
    pace.stored(1);
    EXPECT_GE(restOf(pace), kShort);
}

TEST(ClientPace, GoesOnOnceTheClientHasFetchedDownToTheLowWater) {
    ClientPace pace(kChunk, kPatience);
    pace.stored(pace.highWater());
    std::thread client([&pace] { pace.taken(pace.highWater() - pace.lowWater()); });
    EXPECT_LT(restOf(pace), kPatience);
    client.join();
}

TEST(ClientPace, RestsOnWhileTheClientHasFetchedLess) {
    ClientPace pace(kChunk, kShort);
    pace.stored(pace.highWater());
    std::thread client([&pace] { pace.taken(pace.highWater() - pace.lowWater() - 1); });
    const auto rest = restOf(pace);
    client.join();
    EXPECT_GE(rest, kShort);
}

} // namespace
} // namespace orvexd::test
