#include "support/MemoryBudget.h"

#include "fakes/FakeThreads.h"
#include "fakes/Gate.h"

#include <gtest/gtest.h>
#include <limits>
#include <optional>
#include <thread>
#include <utility>

namespace orvexd {
namespace {

constexpr gint64 kNever = std::numeric_limits<gint64>::max();

TEST(MemoryBudget, CountsWhatIsHeldUntilItIsGivenBack) {
    MemoryBudget budget(1000);
    std::optional<Charge> first(std::in_place, budget, 300);
    Charge second(budget);
    second.add(200);
    EXPECT_EQ(budget.held(), 500U);
    second.remove(50);
    second.set(400);
    EXPECT_EQ(budget.held(), 700U);
    second.set(100);
    first.reset();
    EXPECT_EQ(budget.held(), 100U);
}

TEST(MemoryBudget, AMovedChargeCountsOnce) {
    MemoryBudget budget(1000);
    {
        Charge first(budget, 300);
        const Charge second(std::move(first));
        EXPECT_EQ(budget.held(), 300U);
    }
    EXPECT_EQ(budget.held(), 0U);
}

TEST(MemoryBudget, ASingleAccountHasRoomBelowThreeQuarters) {
    MemoryBudget budget(1600);
    const Charge below(budget, 1199);
    EXPECT_TRUE(below.hasRoomForData());
    EXPECT_TRUE(below.hasRoom());
    Charge at(budget);
    budget.resize(1'000'000);
    at.add(budget.accountBound());
    EXPECT_FALSE(at.hasRoomForData());
    EXPECT_FALSE(at.hasRoom());
}

TEST(MemoryBudget, DataLeavesASixteenthForWhatEveryRequestNeeds) {
    MemoryBudget budget(1600);
    const Charge others(budget, 1499);
    const Charge account(budget);
    EXPECT_TRUE(account.hasRoomForData());
    Charge last(budget, 1);
    EXPECT_FALSE(account.hasRoomForData());
    EXPECT_TRUE(account.hasRoom());
    last.add(100);
    EXPECT_FALSE(account.hasRoom());
}

TEST(MemoryBudget, TheProcessHasTheDeploymentsBudget) {
    EXPECT_EQ(MemoryBudget::process().size(), deployment::kMemoryBudget);
}

TEST(RoomWait, EndsWhenSomethingIsGivenBack) {
    MemoryBudget budget(1000);
    Charge charge(budget, 1000);
    RoomWait wait(budget);
    std::thread other;
    fake_threads::beforeNextWait([&] { other = std::thread([&] { charge.remove(1); }); });
    EXPECT_TRUE(wait.wait(kNever));
    other.join();
}

TEST(RoomWait, SeesAChangeThatCameBeforeTheWait) {
    MemoryBudget budget(1000);
    Charge charge(budget, 1000);
    RoomWait wait(budget);
    charge.remove(1);
    EXPECT_TRUE(wait.wait(kNever));
}

TEST(RoomWait, EndsAtItsDeadline) {
    MemoryBudget budget(1000);
    RoomWait wait(budget);
    EXPECT_FALSE(wait.wait(g_get_monotonic_time()));
}

} // namespace
} // namespace orvexd
