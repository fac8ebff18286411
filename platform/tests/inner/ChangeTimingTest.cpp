// When a change of the network is told, in milliseconds of a clock that the tests turn.

#include "live/ChangeTiming.h"

#include <gtest/gtest.h>

namespace trilba::live {

using std::chrono::milliseconds;

class ChangeTimingTest : public ::testing::Test {
protected:
    static constexpr int kNever = -1;

    void see(const ChangeTiming::Sight& sight, int at) { timing_.see(sight, milliseconds(at)); }

    int due() const {
        const auto time = timing_.due();
        return time ? static_cast<int>(std::chrono::duration_cast<milliseconds>(*time).count())
                    : kNever;
    }

    /// Connected over `name`, and told.
    void connect(const std::string& name) {
        see(on(name), 0);
        timing_.tell();
    }

    static ChangeTiming::Sight on(const std::string& name) { return {name, true, false, false}; }
    static ChangeTiming::Sight nothing() { return {"", false, false, false}; }
    static ChangeTiming::Sight activating(const std::string& name) {
        return {name, false, true, false};
    }

    ChangeTiming timing_;
};

TEST_F(ChangeTimingTest, NothingIsDueBeforeAChange) {
    EXPECT_EQ(due(), kNever);
    see(nothing(), 5);
    EXPECT_EQ(due(), kNever);
}

TEST_F(ChangeTimingTest, WhatIsSeenFirstIsToldAtOnce) {
    see(on("a"), 1000);
    EXPECT_EQ(due(), 1000);
}

TEST_F(ChangeTimingTest, ChangeIsToldWhenItIsQuiet) {
    connect("b");
    see(on("a"), 1000);
    EXPECT_EQ(due(), 1050);
}

TEST_F(ChangeTimingTest, SameSightAgainDoesNotDelay) {
    connect("b");
    see(on("a"), 1000);
    see(on("a"), 1040);
    EXPECT_EQ(due(), 1050);
}

TEST_F(ChangeTimingTest, ChangesCloseToEachOtherAreToldOnce) {
    connect("c");
    see(on("a"), 1000);
    see(on("b"), 1040);
    EXPECT_EQ(due(), 1090);
    timing_.tell();
    EXPECT_EQ(due(), kNever);
}

TEST_F(ChangeTimingTest, ChangesThatGoOnAreToldAtTheLatestAfter300Milliseconds) {
    connect("c");
    for (int at = 1000; at < 1290; at += 40) {
        see(on("a" + std::to_string(at)), at);
    }
    EXPECT_EQ(due(), 1300);
}

TEST_F(ChangeTimingTest, ChangeBackIsTold) {
    connect("a");
    see(on("b"), 1000);
    see(on("a"), 1010);
    EXPECT_EQ(due(), 1060);
}

TEST_F(ChangeTimingTest, LossWithNothingActivatingIsToldAtOnce) {
    connect("a");
    see(nothing(), 1000);
    EXPECT_EQ(due(), 1050);
}

TEST_F(ChangeTimingTest, LossWhileAnotherIsActivatingIsToldAfterTwoSeconds) {
    connect("a");
    see(activating("b"), 1000);
    EXPECT_EQ(due(), 3000);
    see(activating("b, with an address"), 2900);
    EXPECT_EQ(due(), 3000);
}

TEST_F(ChangeTimingTest, ActivationThatBeginsAfterTheLossStillCounts) {
    connect("a");
    see(nothing(), 1000);
    see({"", false, true, false}, 1020);
    EXPECT_EQ(due(), 3000);
}

TEST_F(ChangeTimingTest, HandoverIsToldAsAChangeAndNotAsALoss) {
    connect("a");
    see(activating("b"), 1000);
    see(on("b"), 1800);
    EXPECT_EQ(due(), 1850);
}

TEST_F(ChangeTimingTest, HandoverThatFailsIsALossAtOnce) {
    connect("a");
    see(activating("b"), 1000);
    see(nothing(), 1500);
    EXPECT_EQ(due(), 1550);
}

TEST_F(ChangeTimingTest, HandoverToTheSameConnectionIsTold) {
    connect("a");
    see({"", false, true, false}, 1000);
    see(on("a"), 1900);
    EXPECT_EQ(due(), 1950);
}

TEST_F(ChangeTimingTest, LossThatWasToldIsNotToldAgain) {
    connect("a");
    see(activating("b"), 1000);
    timing_.tell();
    see(activating("b"), 3100);
    EXPECT_EQ(due(), kNever);
    see(nothing(), 4000);
    EXPECT_EQ(due(), 4050); // the list is another one, without connections as before
}

TEST_F(ChangeTimingTest, NewConnectionWaitsForWhatIsStillBeingAsked) {
    connect("c");
    see({"a", true, false, true}, 1000);
    EXPECT_EQ(due(), 1300);
    see({"a", true, false, false}, 1100);
    EXPECT_EQ(due(), 1050); // the answer has come, and the quiet time is over
}

TEST_F(ChangeTimingTest, FirstConnectionWaitsForWhatIsStillBeingAskedToo) {
    see({"a", true, false, true}, 1000);
    EXPECT_EQ(due(), 1300);
    see({"a", true, false, false}, 1010);
    EXPECT_EQ(due(), 1000);
}

TEST_F(ChangeTimingTest, LossWaitsForNoAnswer) {
    connect("a");
    see({"", false, false, true}, 1000);
    EXPECT_EQ(due(), 1050);
}

} // namespace trilba::live
