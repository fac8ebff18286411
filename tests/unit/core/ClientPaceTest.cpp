#include "core/ClientPace.h"

#include "fakes/FakeThreads.h"
#include "fakes/Gate.h"

#include <atomic>
#include <fstream>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <thread>
#include <unistd.h>

namespace orvexd {

static std::ostream& operator<<(std::ostream& out, ClientPace::Rest rest) {
    return out << static_cast<int>(rest);
}

namespace test {
namespace {

using Rest = ClientPace::Rest;

constexpr std::size_t kChunk = 65536;
constexpr std::chrono::milliseconds kShort(20);

/// A client's thread beside the test's own, which is the worker.
class Client {
public:
    explicit Client(ClientPace& pace) : pace_(pace) {}

    /// Fetches as much in each of so many rests, unless the worker has ended before.
    void fetchWhileTheWorkerRests(std::size_t bytes, int rests = 1) {
        thread_ = std::thread([this, bytes, rests] {
            for (int i = 0; i < rests && awaitRest(); ++i) {
                pace_.taken(bytes);
            }
        });
    }

    void end() {
        workerHasEnded_ = true;
        thread_.join();
    }

private:
    bool awaitRest() {
        // In this order: what is stored next is stored after the end of the rest before.
        while (pace_.waiting() < pace_.highWater() || !pace_.isResting()) {
            if (workerHasEnded_) {
                return false;
            }
            std::this_thread::yield();
        }
        return true;
    }

    ClientPace& pace_;
    std::atomic<bool> workerHasEnded_ = false;
    std::thread thread_;
};

/// Waits until another thread of the process can do nothing more by itself.
void awaitSleepOrEnd(pid_t thread) {
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
    bool runs = true;
    while (runs) {
        std::string text;
        std::getline(std::ifstream(path), text);
        runs = text.find(") R ") != std::string::npos;
        std::this_thread::yield();
    }
}

TEST(ClientPace, LetsTwoChunksBeStoredAndAMebibyteAtLeast) {
    EXPECT_EQ(ClientPace(1).highWater(), std::size_t{1024} * 1024);
    EXPECT_EQ(ClientPace(std::size_t{4} * 1024 * 1024).highWater(), std::size_t{8} * 1024 * 1024);
}

TEST(ClientPace, LowWaterIsHalfTheHighWater) {
    EXPECT_EQ(ClientPace(1).lowWater(), std::size_t{512} * 1024);
}

TEST(ClientPace, CountsWhatIsStoredAndNotTaken) {
    ClientPace pace(kChunk);
    EXPECT_EQ(pace.waiting(), 0U);
    EXPECT_FALSE(pace.isResting());
    pace.stored(100);
    pace.stored(10);
    pace.taken(3);
    EXPECT_EQ(pace.waiting(), 107U);
}

TEST(ClientPace, GoesOnWhileThereIsNotAWholeChunkToFetch) {
    ClientPace pace(kChunk, kPatience);
    const int before = fake_threads::yieldsOfThisThread();
    pace.stored(kChunk - 1);
    EXPECT_EQ(pace.rest(), Rest::NotNeeded);
    for (int i = 0; i < 100; ++i) {
        pace.stored(kChunk);
        pace.taken(kChunk);
        EXPECT_EQ(pace.rest(), Rest::NotNeeded);
    }
    EXPECT_EQ(fake_threads::yieldsOfThisThread(), before);
}

TEST(ClientPace, LetsOtherThreadsGoFirstOnceThereIsAChunkToFetch) {
    ClientPace pace(kChunk, kPatience);
    const int before = fake_threads::yieldsOfThisThread();
    pace.stored(kChunk);
    EXPECT_EQ(pace.rest(), Rest::Yielded);
    EXPECT_EQ(fake_threads::yieldsOfThisThread(), before + 1);
}

TEST(ClientPace, DoesNotRestBelowTheHighWater) {
    ClientPace pace(kChunk, kPatience);
    pace.stored(pace.highWater() - 1);
    EXPECT_EQ(pace.rest(), Rest::Yielded);
}

TEST(ClientPace, DoesNotYieldAboveTheHighWaterSoThatAnAnswerThatNobodyFetchesComesIn) {
    ClientPace pace(kChunk, kShort);
    pace.stored(pace.highWater());
    EXPECT_EQ(pace.rest(), Rest::TimeIsUp);
    const int before = fake_threads::yieldsOfThisThread();
    pace.stored(1);
    EXPECT_EQ(pace.rest(), Rest::NotNeeded);
    EXPECT_EQ(fake_threads::yieldsOfThisThread(), before);
}

TEST(ClientPace, RestsAtTheHighWaterButNotForLong) {
    ClientPace pace(kChunk, kShort);
    pace.stored(pace.highWater());
    const gint64 begin = g_get_monotonic_time();
    EXPECT_EQ(pace.rest(), Rest::TimeIsUp);
    EXPECT_GE(std::chrono::microseconds(g_get_monotonic_time() - begin), kShort);
    EXPECT_FALSE(pace.isResting());
}

TEST(ClientPace, RestsForTenMillisecondsUnlessTold) {
    EXPECT_EQ(ClientPace::kLongestRest, std::chrono::milliseconds(10));
    ClientPace pace(kChunk);
    pace.stored(pace.highWater());
    const gint64 begin = g_get_monotonic_time();
    EXPECT_EQ(pace.rest(), Rest::TimeIsUp);
    EXPECT_GE(g_get_monotonic_time() - begin, 10'000);
}

TEST(ClientPace, RestsAgainOnlyHalfTheHighWaterLater) {
    ClientPace pace(kChunk, kShort);
    pace.stored(pace.highWater());
    EXPECT_EQ(pace.rest(), Rest::TimeIsUp);
    EXPECT_EQ(pace.rest(), Rest::NotNeeded);
    pace.stored(pace.lowWater() - 1);
    EXPECT_EQ(pace.rest(), Rest::NotNeeded);
    pace.stored(1);
    EXPECT_EQ(pace.rest(), Rest::TimeIsUp);
}

TEST(ClientPace, GoesOnOnceTheClientHasFetchedDownToTheLowWater) {
    ClientPace pace(kChunk, kPatience);
    pace.stored(pace.highWater());
    Client client(pace);
    client.fetchWhileTheWorkerRests(pace.highWater() - pace.lowWater());
    EXPECT_EQ(pace.rest(), Rest::ClientFetched);
    EXPECT_FALSE(pace.isResting());
    client.end();
}

TEST(ClientPace, RestsOnWhileTheClientHasFetchedLess) {
    ClientPace pace(kChunk, kShort);
    pace.stored(pace.highWater());
    Client client(pace);
    client.fetchWhileTheWorkerRests(pace.highWater() - pace.lowWater() - 1);
    EXPECT_EQ(pace.rest(), Rest::TimeIsUp);
    client.end();
}

TEST(ClientPace, FetchBetweenTheWorkersLookAndItsWaitIsNotMissed) {
    ClientPace pace(kChunk, kPatience);
    pace.stored(pace.highWater());
    std::atomic<pid_t> id = 0;
    std::thread client;
    fake_threads::beforeNextWait([&] {
        client = std::thread([&] {
            id = gettid();
            pace.taken(pace.highWater() - pace.lowWater());
        });
        while (pace.waiting() > pace.lowWater()) {
            std::this_thread::yield();
        }
        awaitSleepOrEnd(id);
    });
    EXPECT_EQ(pace.rest(), Rest::ClientFetched);
    ASSERT_TRUE(client.joinable());
    client.join();
}

TEST(ClientPace, EveryRestEndsWhenTheClientFetches) {
    constexpr int kRests = 1000;
    ClientPace pace(kChunk, kPatience);
    const std::size_t span = pace.highWater() - pace.lowWater();
    pace.stored(pace.lowWater());
    Client client(pace);
    client.fetchWhileTheWorkerRests(span, kRests);
    Rest last = Rest::ClientFetched;
    for (int i = 0; i < kRests && last == Rest::ClientFetched; ++i) {
        pace.stored(span);
        last = pace.rest();
    }
    EXPECT_EQ(last, Rest::ClientFetched);
    client.end();
}

} // namespace
} // namespace test
} // namespace orvexd
