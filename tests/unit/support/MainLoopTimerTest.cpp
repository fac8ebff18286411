#include "fakes/MainContext.h"
#include "support/GlibComplaints.h"
#include "support/MainLoopPost.h"

#include <gtest/gtest.h>
#include <memory>

namespace orvexd {
namespace {

using namespace std::chrono_literals;
using test::drainMainContext;
using test::iterateUntil;

TEST(MainLoopTimer, IsNotPendingInTheBeginning) {
    const MainLoopTimer timer;
    EXPECT_FALSE(timer.isPending());
}

TEST(MainLoopTimer, RunsItsActionOnce) {
    MainLoopTimer timer;
    int runs = 0;
    timer.start(0ms, [&] { ++runs; });
    EXPECT_TRUE(timer.isPending());
    EXPECT_EQ(runs, 0) << "never inside start";
    EXPECT_TRUE(iterateUntil([&] { return runs > 0; }));
    drainMainContext();
    EXPECT_EQ(runs, 1);
}

TEST(MainLoopTimer, WaitsForItsDelay) {
    MainLoopTimer timer;
    bool ran = false;
    const gint64 begin = g_get_monotonic_time();
    timer.start(20ms, [&] { ran = true; });
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    EXPECT_GE(g_get_monotonic_time() - begin, 19000);
}

TEST(MainLoopTimer, IsNotPendingWhileItsActionRuns) {
    MainLoopTimer timer;
    bool pending = true;
    bool ran = false;
    timer.start(0ms, [&] {
        pending = timer.isPending();
        ran = true;
    });
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    EXPECT_FALSE(pending);
}

TEST(MainLoopTimer, CancelForgetsTheAction) {
    MainLoopTimer timer;
    bool ran = false;
    timer.start(0ms, [&] { ran = true; });
    timer.cancel();
    EXPECT_FALSE(timer.isPending());
    drainMainContext();
    EXPECT_FALSE(ran);
}

TEST(MainLoopTimer, CancelFreesWhatTheActionHolds) {
    MainLoopTimer timer;
    const auto held = std::make_shared<int>(1);
    timer.start(1h, [held] { (void)held; });
    timer.cancel();
    EXPECT_EQ(held.use_count(), 1);
}

TEST(MainLoopTimer, ActionIsFreedOnceItHasRun) {
    MainLoopTimer timer;
    const auto held = std::make_shared<bool>(false);
    timer.start(0ms, [held] { *held = true; });
    EXPECT_TRUE(iterateUntil([&] { return *held; }));
    EXPECT_EQ(held.use_count(), 1);
}

TEST(MainLoopTimer, CancelAfterItFiredTouchesNoForeignSource) {
    const test::GlibComplaints complaints;
    MainLoopTimer timer;
    bool ran = false;
    timer.start(0ms, [&] { ran = true; });
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    timer.cancel();
    EXPECT_EQ(complaints.number(), 0);
}

TEST(MainLoopTimer, CancelInsideItsActionIsHarmless) {
    const test::GlibComplaints complaints;
    MainLoopTimer timer;
    bool ran = false;
    timer.start(0ms, [&] {
        timer.cancel();
        ran = true;
    });
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    drainMainContext();
    EXPECT_EQ(complaints.number(), 0);
}

TEST(MainLoopTimer, CancelWithoutStartDoesNothing) {
    const test::GlibComplaints complaints;
    MainLoopTimer timer;
    timer.cancel();
    EXPECT_EQ(complaints.number(), 0);
}

TEST(MainLoopTimer, MayBeStartedAgainInsideItsAction) {
    MainLoopTimer timer;
    int runs = 0;
    timer.start(0ms, [&] {
        ++runs;
        timer.start(0ms, [&] { ++runs; });
        EXPECT_TRUE(timer.isPending());
    });
    EXPECT_TRUE(iterateUntil([&] { return runs == 2; }));
    EXPECT_FALSE(timer.isPending());
}

TEST(MainLoopTimer, IsRemovedWhenItGoesOutOfScope) {
    bool ran = false;
    {
        MainLoopTimer timer;
        timer.start(0ms, [&] { ran = true; });
    }
    drainMainContext();
    EXPECT_FALSE(ran);
}

TEST(MainLoopTimer, MayDieInsideItsAction) {
    auto timer = std::make_unique<MainLoopTimer>();
    bool ran = false;
    timer->start(0ms, [&] {
        timer.reset();
        ran = true;
    });
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
    EXPECT_FALSE(timer);
}

TEST(MainLoopTimer, DelayBeyondGlibsRangeDoesNotWrapToAShortOne) {
    for (const auto delay : {std::chrono::milliseconds(std::int64_t{1} << 32),
                             std::chrono::milliseconds((std::int64_t{1} << 32) + 1),
                             std::chrono::milliseconds::max()}) {
        MainLoopTimer timer;
        bool ran = false;
        timer.start(delay, [&] { ran = true; });
        MainLoopTimer later;
        bool waited = false;
        later.start(5ms, [&] { waited = true; });
        EXPECT_TRUE(iterateUntil([&] { return waited; }));
        EXPECT_FALSE(ran) << delay.count();
        EXPECT_TRUE(timer.isPending());
    }
}

TEST(MainLoopTimer, NegativeDelayRunsAtOnce) {
    MainLoopTimer timer;
    bool ran = false;
    timer.start(-5ms, [&] { ran = true; });
    EXPECT_TRUE(iterateUntil([&] { return ran; }));
}

} // namespace
} // namespace orvexd
