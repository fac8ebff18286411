#include "support/Threads.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace orvexd {
namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 20000;
constexpr gint64 kSecond = G_USEC_PER_SEC;

/// Adds to a plain counter from several threads, each addition under `Guard`.
template <typename Guard, typename MutexType> int countUnder(MutexType& mutex) {
    int counter = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const Guard guard(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return counter;
}

TEST(Mutex, LetsOneThreadInAtATime) {
    Mutex mutex;
    EXPECT_EQ(countUnder<Lock>(mutex), kThreads * kRounds);
}

TEST(Condition, WaitEndsAtTheDeadline) {
    Mutex mutex;
    Condition condition;
    const Lock guard(mutex);
    const gint64 deadline = g_get_monotonic_time() + kSecond / 100;
    while (condition.waitUntil(mutex, deadline)) { // spurious wake-ups
    }
    EXPECT_GE(g_get_monotonic_time(), deadline);
}

TEST(Condition, PassedDeadlineDoesNotWait) {
    Mutex mutex;
    Condition condition;
    const Lock guard(mutex);
    EXPECT_FALSE(condition.waitUntil(mutex, g_get_monotonic_time() - kSecond));
}

TEST(Condition, MutexIsHeldAgainAfterTheDeadline) {
    Mutex mutex;
    Condition condition;
    int counter = 0;
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                const Lock guard(mutex);
                (void)condition.waitUntil(mutex, 0);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, kThreads * 100);
}

TEST(Condition, BroadcastWakesEveryWaiter) {
    Mutex mutex;
    Condition condition;
    int waiting = 0;   // guarded by mutex
    int woken = 0;     // guarded by mutex
    bool open = false; // guarded by mutex
    std::vector<std::thread> threads;
    for (int number = 0; number < kThreads; ++number) {
        threads.emplace_back([&] {
            const Lock guard(mutex);
            ++waiting;
            condition.broadcast();
            const gint64 deadline = g_get_monotonic_time() + 10 * kSecond;
            while (!open && condition.waitUntil(mutex, deadline)) {
            }
            woken += open ? 1 : 0;
        });
    }
    {
        const Lock guard(mutex);
        const gint64 deadline = g_get_monotonic_time() + 10 * kSecond;
        while (waiting < kThreads && condition.waitUntil(mutex, deadline)) {
        }
        open = true;
        condition.broadcast();
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(woken, kThreads);
}

} // namespace
} // namespace orvexd
