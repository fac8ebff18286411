#include "dbus/PendingReplies.h"
#include "fakes/FakeBus.h"
#include "fakes/MainContext.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

namespace orvexd {
namespace {

using test::passTime;
using testing::ElementsAre;
using testing::IsEmpty;

class HeldSendsTest : public testing::Test {
protected:
    HeldSendsTest() { BusLink::open(BusConnection(fake_bus::FakeBus::connection())); }
    ~HeldSendsTest() override { BusLink::close(); }
    HeldSendsTest(const HeldSendsTest&) = delete;
    HeldSendsTest& operator=(const HeldSendsTest&) = delete;

    void hold(std::uint32_t requestId, dbus_uint32_t serial) {
        const BusMessage call = fake_bus::call("sendData");
        dbus_message_set_serial(call.get(), serial);
        sends_.hold(1, requestId, BusMessage(dbus_message_new_method_return(call.get())));
    }

    /// Serials of the calls that were answered since the last question.
    std::vector<dbus_uint32_t> answered() {
        std::vector<dbus_uint32_t> serials;
        for (const BusMessage& reply : bus_.sent) {
            serials.push_back(dbus_message_get_reply_serial(reply.get()));
        }
        bus_.sent.clear();
        return serials;
    }

    fake_bus::FakeBus bus_;
    HeldSends sends_;
};

TEST_F(HeldSendsTest, RepliesLeaveWhenTheirRequestHasRoom) {
    hold(1, 11);
    hold(2, 12);
    hold(1, 13);
    EXPECT_THAT(answered(), IsEmpty());
    sends_.release(1, 1);
    EXPECT_THAT(answered(), ElementsAre(11, 13));
    sends_.release(1, 1);
    EXPECT_THAT(answered(), IsEmpty());
}

TEST_F(HeldSendsTest, NoReplyIsHeldForMoreThanFiveSeconds) {
    hold(1, 11);
    passTime(std::chrono::milliseconds(4900));
    EXPECT_THAT(answered(), IsEmpty());
    passTime(std::chrono::milliseconds(200));
    EXPECT_THAT(answered(), ElementsAre(11));
    hold(1, 12);
    passTime(std::chrono::milliseconds(5100));
    EXPECT_THAT(answered(), ElementsAre(12));
}

TEST_F(HeldSendsTest, ALaterReplyIsHeldForItsOwnTime) {
    hold(1, 11);
    const auto begin = g_get_monotonic_time();
    ASSERT_TRUE(test::iterateUntil([&] { return g_get_monotonic_time() > begin + 2000; }));
    hold(1, 12);
    passTime(HeldSends::kLongestHold);
    EXPECT_THAT(answered(), ElementsAre(11));
    passTime(HeldSends::kLongestHold);
    EXPECT_THAT(answered(), ElementsAre(12));
}

TEST_F(HeldSendsTest, ManyRepliesAreNotHeld) {
    for (std::size_t number = 0; number < HeldSends::kMostReplies; ++number) {
        hold(1, 11);
    }
    EXPECT_THAT(answered(), IsEmpty());
    hold(1, 12);
    EXPECT_THAT(answered(), ElementsAre(12));
}

TEST_F(HeldSendsTest, AllLeaveAtOnceWhenTheDaemonEnds) {
    hold(1, 11);
    hold(2, 12);
    sends_.releaseAll();
    EXPECT_THAT(answered(), ElementsAre(11, 12));
    passTime(std::chrono::seconds(6));
    EXPECT_THAT(answered(), IsEmpty());
}

} // namespace
} // namespace orvexd
