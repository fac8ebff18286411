#include "http/DataSignal.h"

#include "fakes/Gate.h"

#include <atomic>
#include <gtest/gtest.h>
#include <optional>
#include <thread>

namespace orvexd::test {
namespace {

gint64 in(std::chrono::microseconds time) {
    return g_get_monotonic_time() + time.count();
}

class DataSignalTest : public testing::Test {
protected:
    DataSignal signal_;
};

TEST_F(DataSignalTest, KnowsNoCancellationAtFirst) {
    EXPECT_FALSE(DataSignal::Reader(signal_).isCancelRequested());
}

TEST_F(DataSignalTest, ShowsACancellationToTheReader) {
    signal_.requestCancel();
    EXPECT_TRUE(DataSignal::Reader(signal_).isCancelRequested());
}

TEST_F(DataSignalTest, KeepsACancellation) {
    signal_.requestCancel();
    signal_.notifyData();
    EXPECT_TRUE(DataSignal::Reader(signal_).isCancelRequested());
    EXPECT_TRUE(DataSignal::Reader(signal_).isCancelRequested());
}

TEST_F(DataSignalTest, EndsAWaitAtItsDeadline) {
    DataSignal::Reader reader(signal_);
    const gint64 deadline = in(std::chrono::milliseconds(20));
    EXPECT_FALSE(reader.waitForData(deadline));
    EXPECT_GE(g_get_monotonic_time(), deadline);
}

TEST_F(DataSignalTest, DoesNotWaitWhenTheDeadlineHasPassed) {
    DataSignal::Reader reader(signal_);
    EXPECT_FALSE(reader.waitForData(in(std::chrono::seconds(-1))));
}

TEST_F(DataSignalTest, ForgetsDataThatCameBeforeTheWait) {
    signal_.notifyData();
    DataSignal::Reader reader(signal_);
    EXPECT_FALSE(reader.waitForData(in(std::chrono::milliseconds(-1))));
}

TEST_F(DataSignalTest, WakesTheWaitingReader) {
    std::optional<DataSignal::Reader> reader(std::in_place, signal_);
    // The reader holds the mutex until it waits, so the notification comes in the wait.
    std::thread sender([this] { signal_.notifyData(); });
    EXPECT_TRUE(reader->waitForData(in(kPatience)));
    reader.reset();
    sender.join();
}

TEST_F(DataSignalTest, LooksAtTheDeadlineAgainWhenItMayHaveChanged) {
    std::optional<DataSignal::Reader> reader(std::in_place, signal_);
    std::atomic<bool> isShort = false;
    std::thread other([&] {
        isShort = true;
        signal_.notifyDeadline(); // takes the mutex, so it comes in the wait
    });
    EXPECT_FALSE(reader->waitForData([&] { return isShort ? gint64{0} : in(kPatience); }));
    EXPECT_TRUE(isShort);
    reader.reset();
    other.join();
}

TEST_F(DataSignalTest, TellsAChangeOfTheDeadlineFromData) {
    std::optional<DataSignal::Reader> reader(std::in_place, signal_);
    std::thread other([this] { signal_.notifyDeadline(); });
    EXPECT_FALSE(reader->waitForData(in(std::chrono::milliseconds(20))));
    reader.reset();
    other.join();
}

TEST_F(DataSignalTest, EveryNotificationEndsAWait) {
    constexpr int kWaits = 2000;
    std::atomic<int> begun = 0;
    std::atomic<bool> failed = false;
    std::thread sender([&] {
        for (int number = 1; number <= kWaits; ++number) {
            while (begun < number && !failed) {
                std::this_thread::yield();
            }
            signal_.notifyData();
        }
    });
    std::optional<DataSignal::Reader> reader(std::in_place, signal_);
    for (int number = 1; number <= kWaits && !failed; ++number) {
        begun = number; // the mutex is held from here to the wait
        failed = !reader->waitForData(in(kPatience));
    }
    EXPECT_FALSE(failed);
    reader.reset();
    sender.join();
}

TEST_F(DataSignalTest, DoesNotWakeTheReaderForACancellation) {
    std::optional<DataSignal::Reader> reader(std::in_place, signal_);
    std::thread canceller([this] { signal_.requestCancel(); });
    const gint64 end = in(kPatience);
    do { // a busy machine may be late with the other thread
        const gint64 deadline = in(std::chrono::milliseconds(50));
        EXPECT_FALSE(reader->waitForData(deadline));
        EXPECT_GE(g_get_monotonic_time(), deadline);
    } while (!reader->isCancelRequested() && g_get_monotonic_time() < end);
    EXPECT_TRUE(reader->isCancelRequested());
    reader.reset();
    canceller.join();
}

} // namespace
} // namespace orvexd::test
