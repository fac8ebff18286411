#include "support/Statistics.h"

#include "dbus/PendingReplies.h"
#include "fakes/MainContext.h"
#include "request/RequestData.h"
#include "support/MainLoopPost.h"

#include <gtest/gtest.h>
#include <memory>
#include <type_traits>
#include <utility>

namespace orvexd {
namespace {

#ifdef ORVEXD_STATISTICS

/// Tells how many more of one kind exist than when it was made.
class More {
public:
    explicit More(Statistic which) : which_(which) {}
    [[nodiscard]] std::int64_t count() const { return statistic(which_) - before_; }

private:
    Statistic which_;
    std::int64_t before_ = statistic(which_);
};

TEST(Statistics, CountEachObjectThatLives) {
    using One = Counted<Statistic::Exchanges>;
    const More objects(Statistic::Exchanges);
    {
        One original;
        One copy(original);
        One moved(std::move(original));
        EXPECT_EQ(objects.count(), 3);
        copy = moved;
        moved = std::move(copy);
        EXPECT_EQ(objects.count(), 3);
    }
    EXPECT_EQ(objects.count(), 0);
}

TEST(Statistics, CountARequestAndTheConnectionThatItKeeps) {
    const More requests(Statistic::Requests);
    const More connections(Statistic::Connections);
    auto parameters = std::make_shared<const ConnectionParameters>();
    const auto request = std::make_unique<RequestData>(1, 2, true, parameters);
    parameters.reset();
    EXPECT_EQ(requests.count(), 1);
    EXPECT_EQ(connections.count(), 1);
}

TEST(Statistics, CountHeldRepliesUntilTheyAreTakenOrGivenUp) {
    const More held(Statistic::HeldReplies);
    const BusMessage call(dbus_message_new_method_call(nullptr, "/", nullptr, "getData"));
    dbus_message_set_serial(call.get(), 1);
    PendingReplies pending;
    for (const std::uint32_t request : {1, 2, 3, 3}) {
        pending.hold(1, request, *call);
    }
    EXPECT_EQ(held.count(), 3);
    EXPECT_TRUE(pending.take(1, 1));
    pending.drop(1, 2);
    EXPECT_EQ(held.count(), 1);
}

TEST(Statistics, CountAPostUntilItHasRun) {
    test::drainMainContext();
    const Lifetime alive;
    const More posts(Statistic::Posts);
    postToMainLoop(alive, [] {});
    EXPECT_EQ(posts.count(), 1);
    test::drainMainContext();
    EXPECT_EQ(posts.count(), 0);
}

TEST(Statistics, CountWaitsForRoomAndDataThatIsRefused) {
    const More waits(Statistic::RoomWaits);
    const More refusals(Statistic::RefusedData);
    MemoryBudget budget(1000);
    const Charge others(budget, 1000);
    RequestData request(1, 2, true, std::make_shared<const ConnectionParameters>(), NotFlagged,
                        nullptr, budget);
    EXPECT_FALSE(request.appendIfAccepting("nobody asks", false));
    EXPECT_EQ(refusals.count(), 0);
    request.setAcceptingData(true);
    EXPECT_FALSE(request.appendIfAccepting("no room", false));
    EXPECT_EQ(refusals.count(), 1);
    request.addResponseData("no room", false, {.deadline = 0, .memoryIsShort = {}});
    EXPECT_EQ(waits.count(), 1);
}

#else

TEST(Statistics, TakeNoRoomWhereNothingIsCounted) {
    struct Plain {
        std::uint64_t number;
    };
    struct Marked {
        std::uint64_t number;
        [[no_unique_address]] Counted<Statistic::Requests> counted;
    };
    EXPECT_EQ(sizeof(Marked), sizeof(Plain));
    EXPECT_TRUE(std::is_empty_v<Counted<Statistic::Requests>>);
}

#endif

} // namespace
} // namespace orvexd
