#include "support/MainLoopPost.h"

#include "fakes/MainContext.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

namespace orvexd {
namespace {

using test::drainMainContext;
using test::iterateUntil;

/// Every post of this file goes to it.
const Lifetime kAlive;

template <typename Action> void post(Action action) {
    postToMainLoop(kAlive, std::move(action));
}

TEST(MainLoopPost, RunsOnceAndIsFreed) {
    int runs = 0;
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watch = held;
    post([&runs, held = std::move(held)] { ++runs; });
    EXPECT_EQ(runs, 0) << "never inside the post";
    EXPECT_TRUE(iterateUntil([&] { return watch.expired(); }));
    drainMainContext();
    EXPECT_EQ(runs, 1);
}

TEST(MainLoopPost, PostOfARunningPostRunsAfterItReturned) {
    std::vector<int> order;
    post([&] {
        post([&] { order.push_back(2); });
        order.push_back(1);
    });
    EXPECT_TRUE(iterateUntil([&] { return order.size() == 2; }));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(MainLoopPost, PostsRunInTheOrderOfPosting) {
    std::vector<int> order;
    for (int number = 0; number < 1000; ++number) {
        post([&order, number] { order.push_back(number); });
    }
    EXPECT_TRUE(iterateUntil([&] { return order.size() == 1000; }));
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(MainLoopPost, PostsOfTwoThreadsKeepTheOrderOfEach) {
    constexpr int kPosts = 5000;
    std::array<std::vector<int>, 2> arrived;
    std::array<std::thread, 2> threads;
    for (std::size_t sender = 0; sender < threads.size(); ++sender) {
        threads[sender] = std::thread([&arrived, sender] {
            for (int number = 0; number < kPosts; ++number) {
                post([&arrived, sender, number] { arrived[sender].push_back(number); });
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

TEST(MainLoopPost, RunsOnTheMainLoopsThread) {
    std::thread::id ranOn;
    bool ran = false;
    std::thread([&] {
        post([&] {
            ranOn = std::this_thread::get_id();
            ran = true;
        });
    }).join();
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(MainLoopPost, IsFreedWithoutARunWhenItsTargetIsGone) {
    auto target = std::make_unique<Lifetime>();
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watch = held;
    bool ran = false;
    postToMainLoop(*target, [&ran, held = std::move(held)] { ran = true; });
    target.reset();
    EXPECT_TRUE(iterateUntil([&] { return watch.expired(); }));
    EXPECT_FALSE(ran);
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
