#include "fakes/FakeThreads.h"
#include "fakes/Gate.h"
#include "request/Answer.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace orvexd::test {
namespace {

using Outcome = BackPressure::Outcome;

constexpr std::size_t kChunk = 65536;
constexpr std::chrono::milliseconds kShort(20);

class BackPressureTest : public testing::Test {
protected:
    /// What a pause comes to, with the lock held as the answer holds it.
    Outcome pause(BackPressure& pressure) {
        const Lock guard(mutex_);
        return pressure.pause(mutex_);
    }

    void store(BackPressure& pressure, std::size_t bytes) {
        const Lock guard(mutex_);
        pressure.stored(bytes);
    }

    /// A client that fetches as much in each of so many pauses, unless the worker ends before.
    void fetchDuringPauses(BackPressure& pressure, std::size_t bytes, int pauses = 1) {
        client_ = std::thread([this, &pressure, bytes, pauses] {
            for (int i = 0; i < pauses && fetchDuringPause(pressure, bytes); ++i) {
            }
        });
    }

    void endClient() {
        workerHasEnded_ = true;
        client_.join();
    }

    Mutex mutex_;

private:
    bool fetchDuringPause(BackPressure& pressure, std::size_t bytes) {
        while (!workerHasEnded_) {
            {
                const Lock guard(mutex_);
                // In this order: what is stored next is stored after the end of the pause before.
                if (pressure.waiting() >= pressure.highWater() && pressure.isPausing()) {
                    pressure.fetched(bytes);
                    return true;
                }
            }
            std::this_thread::yield();
        }
        return false;
    }

    std::atomic<bool> workerHasEnded_ = false;
    std::thread client_;
};

TEST_F(BackPressureTest, LetsTwoChunksBeStoredAndAMebibyteAtLeast) {
    EXPECT_EQ(BackPressure(1).highWater(), std::size_t{1024} * 1024);
    EXPECT_EQ(BackPressure(std::size_t{4} * 1024 * 1024).highWater(), std::size_t{8} * 1024 * 1024);
}

TEST_F(BackPressureTest, LowWaterIsHalfTheHighWater) {
    EXPECT_EQ(BackPressure(1).lowWater(), std::size_t{512} * 1024);
}

TEST_F(BackPressureTest, CountsWhatIsStoredAndNotFetched) {
    BackPressure pressure(kChunk);
    EXPECT_EQ(pressure.waiting(), 0U);
    EXPECT_FALSE(pressure.isPausing());
    pressure.stored(100);
    pressure.stored(10);
    pressure.fetched(3);
    pressure.dropped(2);
    EXPECT_EQ(pressure.waiting(), 105U);
}

TEST_F(BackPressureTest, AsksForOneYieldAfterAFetchWhenTheNextChunkIsThere) {
    BackPressure pressure(kChunk);
    pressure.stored(2 * kChunk);
    pressure.fetched(kChunk);
    EXPECT_TRUE(pressure.takeYield());
    EXPECT_FALSE(pressure.takeYield());
    pressure.stored(kChunk);
    EXPECT_FALSE(pressure.takeYield());
    pressure.fetched(kChunk);
    EXPECT_TRUE(pressure.takeYield());
}

// A yield beside busy neighbours costs a time slice of each: an exchange whose answers nobody
// fetched took 15 times as long.
TEST_F(BackPressureTest, AsksForNoYieldWhileNobodyFetches) {
    BackPressure pressure(kChunk);
    for (int i = 0; i < 10; ++i) {
        pressure.stored(kChunk);
        EXPECT_FALSE(pressure.takeYield());
    }
}

TEST_F(BackPressureTest, KeepsTheYieldUntilThereIsAWholeChunkToFetch) {
    BackPressure pressure(kChunk);
    pressure.stored(kChunk);
    pressure.fetched(kChunk);
    pressure.stored(kChunk - 1);
    EXPECT_FALSE(pressure.takeYield());
    pressure.stored(1);
    EXPECT_TRUE(pressure.takeYield());
}

TEST_F(BackPressureTest, AsksForNoYieldAboveTheHighWater) {
    BackPressure pressure(kChunk);
    pressure.stored(pressure.highWater() + kChunk);
    pressure.fetched(kChunk);
    EXPECT_FALSE(pressure.takeYield());
}

TEST_F(BackPressureTest, DoesNotPauseBelowTheHighWater) {
    BackPressure pressure(kChunk, kPatience);
    pressure.stored(pressure.highWater() - 1);
    EXPECT_EQ(pause(pressure), Outcome::NotNeeded);
}

TEST_F(BackPressureTest, PausesAtTheHighWaterButNotForLong) {
    BackPressure pressure(kChunk, kShort);
    pressure.stored(pressure.highWater());
    const gint64 begin = g_get_monotonic_time();
    EXPECT_EQ(pause(pressure), Outcome::TimeIsUp);
    EXPECT_GE(std::chrono::microseconds(g_get_monotonic_time() - begin), kShort);
    EXPECT_FALSE(pressure.isPausing());
}

TEST_F(BackPressureTest, PausesForTenMillisecondsUnlessTold) {
    BackPressure pressure(kChunk);
    pressure.stored(pressure.highWater());
    const gint64 begin = g_get_monotonic_time();
    EXPECT_EQ(pause(pressure), Outcome::TimeIsUp);
    EXPECT_GE(g_get_monotonic_time() - begin, 10'000);
}

TEST_F(BackPressureTest, PausesAgainOnlyHalfTheHighWaterLater) {
    BackPressure pressure(kChunk, kShort);
    pressure.stored(pressure.highWater());
    EXPECT_EQ(pause(pressure), Outcome::TimeIsUp);
    EXPECT_EQ(pause(pressure), Outcome::NotNeeded);
    pressure.stored(pressure.lowWater() - 1);
    EXPECT_EQ(pause(pressure), Outcome::NotNeeded);
    pressure.stored(1);
    EXPECT_EQ(pause(pressure), Outcome::TimeIsUp);
}

TEST_F(BackPressureTest, GoesOnOnceTheClientHasFetchedDownToTheLowWater) {
    BackPressure pressure(kChunk, kPatience);
    pressure.stored(pressure.highWater());
    fetchDuringPauses(pressure, pressure.highWater() - pressure.lowWater());
    EXPECT_EQ(pause(pressure), Outcome::ClientFetched);
    EXPECT_FALSE(pressure.isPausing());
    endClient();
}

TEST_F(BackPressureTest, PausesOnWhileTheClientHasFetchedLess) {
    BackPressure pressure(kChunk, kShort);
    pressure.stored(pressure.highWater());
    fetchDuringPauses(pressure, pressure.highWater() - pressure.lowWater() - 1);
    EXPECT_EQ(pause(pressure), Outcome::TimeIsUp);
    endClient();
}

TEST_F(BackPressureTest, EveryPauseEndsWhenTheClientFetches) {
    constexpr int kPauses = 1000;
    BackPressure pressure(kChunk, kPatience);
    const std::size_t span = pressure.highWater() - pressure.lowWater();
    pressure.stored(pressure.lowWater());
    fetchDuringPauses(pressure, span, kPauses);
    Outcome last = Outcome::ClientFetched;
    for (int i = 0; i < kPauses && last == Outcome::ClientFetched; ++i) {
        store(pressure, span);
        last = pause(pressure);
    }
    EXPECT_EQ(last, Outcome::ClientFetched);
    endClient();
}

} // namespace
} // namespace orvexd::test
