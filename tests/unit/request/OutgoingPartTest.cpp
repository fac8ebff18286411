// What a request's data does when it comes faster than it goes.

#include "request/OutgoingPart.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace orvexd {
namespace {

constexpr std::size_t kMiB = std::size_t{1024} * 1024;
constexpr std::size_t kPrompt = OutgoingPart::kPromptBytes;

class OutgoingPartRoom : public testing::Test {
protected:
    OutgoingPartRoom() {
        part_.setAccepting(true);
        EXPECT_TRUE(append(0)); // the empty line of the header is out of the way
        (void)take(kMiB);
    }

    bool append(std::size_t bytes) {
        return part_.appendIfAccepting(std::string(bytes, 'x'), false);
    }

    OutgoingPart::Piece take(std::size_t most) {
        std::string room(most, '\0');
        return part_.take(room);
    }

    MemoryBudget budget_{64 * kMiB};
    OutgoingPart part_{std::make_shared<const ConnectionParameters>(), budget_};
};

TEST_F(OutgoingPartRoom, AcceptsWhatOneCallBringsWhenThereWasRoomBefore) {
    EXPECT_TRUE(append(47 * kMiB));
    EXPECT_TRUE(append(30 * kMiB));
    EXPECT_FALSE(append(1));
    std::size_t left = 77 * kMiB;
    while (left > 0) {
        left -= take(kMiB).bytes;
    }
    EXPECT_TRUE(append(1));
}

TEST_F(OutgoingPartRoom, RefusesDataWhenOthersUseTheBudgetUp) {
    const Charge others(budget_, 60 * kMiB);
    EXPECT_FALSE(append(1));
}

TEST_F(OutgoingPartRoom, GivesItsMemoryBackWhenItIsSent) {
    EXPECT_TRUE(part_.appendIfAccepting(std::string(kMiB, 'x'), true));
    EXPECT_GE(budget_.held(), kMiB);
    EXPECT_TRUE(take(2 * kMiB).finished);
    EXPECT_EQ(budget_.held(), 0U);
}

TEST_F(OutgoingPartRoom, IsCrowdedAboveTheBytesThatMayWait) {
    EXPECT_TRUE(append(kPrompt));
    EXPECT_FALSE(part_.isCrowded());
    EXPECT_TRUE(append(1));
    EXPECT_TRUE(part_.isCrowded());
}

TEST_F(OutgoingPartRoom, TellsWhenItIsNotCrowdedAnyMore) {
    EXPECT_TRUE(append(kPrompt + 2));
    ASSERT_TRUE(part_.isCrowded());
    EXPECT_FALSE(take(1).hasRoom);
    EXPECT_TRUE(take(1).hasRoom);
    EXPECT_FALSE(take(1).hasRoom);
}

TEST_F(OutgoingPartRoom, TellsNobodyWhoHasNotAsked) {
    EXPECT_TRUE(append(kPrompt + 1));
    EXPECT_FALSE(take(2).hasRoom);
}

} // namespace
} // namespace orvexd
