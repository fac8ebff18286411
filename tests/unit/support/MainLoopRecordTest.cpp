#include "support/MainLoopRecord.h"

#include "fakes/MainContext.h"

#include <algorithm>
#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <utility>
#include <vector>

namespace orvexd {
namespace {

using namespace std::chrono_literals;
using test::drainMainContext;
using test::iterateUntil;

/// Runs a function and tells when it is freed.
class FunctionRecord : public MainLoopRecord {
public:
    explicit FunctionRecord(std::function<void()> action, int* freed = nullptr)
        : action_(std::move(action)), freed_(freed) {}
    ~FunctionRecord() override {
        if (freed_ != nullptr) {
            ++*freed_;
        }
    }
    FunctionRecord(const FunctionRecord&) = delete;
    FunctionRecord& operator=(const FunctionRecord&) = delete;
    FunctionRecord(FunctionRecord&&) = delete;
    FunctionRecord& operator=(FunctionRecord&&) = delete;

    void run() override { action_(); }

private:
    std::function<void()> action_;
    int* freed_;
};

void post(std::chrono::milliseconds delay, std::function<void()> action, int* freed = nullptr) {
    postToMainLoop(delay, std::make_unique<FunctionRecord>(std::move(action), freed));
}

TEST(MainLoopRecord, RunsOnceAndIsFreed) {
    int runs = 0;
    int freed = 0;
    post(
        0ms, [&] { ++runs; }, &freed);
    EXPECT_EQ(runs, 0) << "never inside the post";
    EXPECT_TRUE(iterateUntil([&] { return freed > 0; }));
    drainMainContext();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(freed, 1);
}

TEST(MainLoopRecord, PostOfARunningRecordRunsAfterItReturned) {
    std::vector<int> order;
    post(0ms, [&] {
        post(0ms, [&] { order.push_back(2); });
        order.push_back(1);
    });
    EXPECT_TRUE(iterateUntil([&] { return order.size() == 2; }));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(MainLoopRecord, RecordsRunInTheOrderOfPosting) {
    std::vector<int> order;
    for (int number = 0; number < 1000; ++number) {
        post(0ms, [&order, number] { order.push_back(number); });
    }
    EXPECT_TRUE(iterateUntil([&] { return order.size() == 1000; }));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(MainLoopRecord, RecordsOfTwoThreadsKeepTheOrderOfEach) {
    constexpr int kPosts = 5000;
    std::array<std::vector<int>, 2> arrived;
    std::array<std::thread, 2> threads;
    for (std::size_t sender = 0; sender < threads.size(); ++sender) {
        threads[sender] = std::thread([&arrived, sender] {
            for (int number = 0; number < kPosts; ++number) {
                post(0ms, [&arrived, sender, number] { arrived[sender].push_back(number); });
            }
        });
    }
    EXPECT_TRUE(
        iterateUntil([&] { return arrived[0].size() == kPosts && arrived[1].size() == kPosts; }));
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::vector<int>& numbers : arrived) {
        for (int number = 0; number < kPosts; ++number) {
            ASSERT_EQ(numbers[static_cast<std::size_t>(number)], number);
        }
    }
}

TEST(MainLoopRecord, RunsOnTheMainLoopsThread) {
    std::thread::id ranOn;
    bool ran = false;
    std::thread([&] {
        post(0ms, [&] {
            ranOn = std::this_thread::get_id();
            ran = true;
        });
    }).join();
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(MainLoopRecord, WaitsForItsDelay) {
    bool ran = false;
    const gint64 begin = g_get_monotonic_time();
    post(20ms, [&] { ran = true; });
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    EXPECT_GE(g_get_monotonic_time() - begin, 19000);
}

TEST(Lifetime, WatchSeesTheEndOfItsObject) {
    auto object = std::make_unique<Lifetime>();
    const Lifetime::Watch watch = object->watch();
    EXPECT_FALSE(watch.expired());
    object.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(Lifetime, EveryObjectHasItsOwn) {
    auto first = std::make_unique<Lifetime>();
    const Lifetime second;
    const Lifetime::Watch watch = second.watch();
    first.reset();
    EXPECT_FALSE(watch.expired());
}

} // namespace
} // namespace orvexd
