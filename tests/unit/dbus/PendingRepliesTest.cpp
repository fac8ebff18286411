#include "dbus/PendingReplies.h"

#include <gtest/gtest.h>
#include <utility>

namespace orvexd {
namespace {

BusMessage getDataCall(dbus_uint32_t serial) {
    BusMessage call(dbus_message_new_method_call("com.kelvra.orvexd", "/com/kelvra/orvexd",
                                                 "com.kelvra.orvexd", "getData"));
    dbus_message_set_serial(call.get(), serial);
    dbus_message_set_sender(call.get(), ":1.5");
    return call;
}

class PendingRepliesTest : public testing::Test {
protected:
    void hold(std::uint32_t connectionId, std::uint32_t requestId, dbus_uint32_t serial) {
        const BusMessage call = getDataCall(serial);
        pending_.hold(connectionId, requestId, *call);
    }

    /// Serial of the call whose answer is taken, 0 when there is none.
    dbus_uint32_t take(std::uint32_t connectionId, std::uint32_t requestId) {
        const BusMessage reply = pending_.take(connectionId, requestId);
        return reply ? dbus_message_get_reply_serial(reply.get()) : 0;
    }

    PendingReplies pending_;
};

/// Tells when the message that it is attached to has been released.
class Release {
public:
    explicit Release(DBusMessage& message) {
        dbus_message_allocate_data_slot(&slot_);
        dbus_message_set_data(&message, slot_, &happened_,
                              [](void* happened) { *static_cast<bool*>(happened) = true; });
    }
    ~Release() { dbus_message_free_data_slot(&slot_); }
    Release(const Release&) = delete;
    Release& operator=(const Release&) = delete;

    bool happened() const { return happened_; }

private:
    dbus_int32_t slot_ = -1;
    bool happened_ = false;
};

// Held calls with large arguments or with file descriptors used to stop all reading from the bus.
TEST_F(PendingRepliesTest, NothingOfTheCallItselfIsKept) {
    BusMessage call = getDataCall(7);
    const Release release(*call);
    pending_.hold(5, 2, *call);
    call.reset();
    EXPECT_TRUE(release.happened());
    EXPECT_EQ(take(5, 2), 7U);
}

TEST_F(PendingRepliesTest, AnswerGoesToTheCaller) {
    hold(5, 2, 7);
    const BusMessage reply = pending_.take(5, 2);
    EXPECT_EQ(dbus_message_get_type(reply.get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_STREQ(dbus_message_get_destination(reply.get()), ":1.5");
    EXPECT_STREQ(dbus_message_get_signature(reply.get()), "");
}

TEST_F(PendingRepliesTest, CallIsTakenOnce) {
    hold(5, 2, 7);
    EXPECT_EQ(take(5, 2), 7U);
    EXPECT_EQ(take(5, 2), 0U);
}

TEST_F(PendingRepliesTest, NothingIsTakenForAnotherRequest) {
    hold(5, 2, 7);
    EXPECT_EQ(take(5, 20), 0U);
    EXPECT_EQ(take(2, 5), 0U);
    EXPECT_EQ(take(5, 2), 7U);
}

TEST_F(PendingRepliesTest, SecondCallReplacesTheHeldOne) {
    hold(5, 2, 7);
    hold(5, 2, 8);
    EXPECT_EQ(take(5, 2), 8U);
    EXPECT_EQ(take(5, 2), 0U) << "the first one is given up";
}

TEST_F(PendingRepliesTest, CallsOfRequestsAreHeldApart) {
    hold(1, 1, 1);
    hold(1, 2, 2);
    EXPECT_EQ(take(1, 2), 2U);
    EXPECT_EQ(take(1, 1), 1U);
}

TEST_F(PendingRepliesTest, DroppedCallIsGone) {
    hold(1, 1, 1);
    hold(1, 2, 2);
    pending_.drop(1, 1);
    EXPECT_EQ(take(1, 1), 0U);
    EXPECT_EQ(take(1, 2), 2U);
}

TEST_F(PendingRepliesTest, DroppingForAnUnknownRequestDoesNothing) {
    hold(1, 1, 1);
    pending_.drop(9, 9);
    EXPECT_EQ(take(1, 1), 1U);
}

TEST_F(PendingRepliesTest, ClearGivesEveryCallUp) {
    hold(1, 1, 1);
    hold(1, 2, 2);
    pending_.clear();
    EXPECT_EQ(take(1, 1), 0U);
    EXPECT_EQ(take(1, 2), 0U);
}

} // namespace
} // namespace orvexd
