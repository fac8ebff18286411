#include "dbus/PendingReplies.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

namespace orvexd {
namespace {

/// Calls that tell by their serial which of them have been released.
class PendingRepliesTest : public testing::Test {
protected:
    PendingRepliesTest() { dbus_message_allocate_data_slot(&slot_); }
    ~PendingRepliesTest() override {
        pending_.clear();
        dbus_message_free_data_slot(&slot_);
    }
    PendingRepliesTest(const PendingRepliesTest&) = delete;
    PendingRepliesTest& operator=(const PendingRepliesTest&) = delete;
    PendingRepliesTest(PendingRepliesTest&&) = delete;
    PendingRepliesTest& operator=(PendingRepliesTest&&) = delete;

    /// Holds a new getData call, to which nobody else keeps a reference.
    void hold(const std::string& key, dbus_uint32_t serial) {
        const BusMessage call(dbus_message_new_method_call(
            "com.kelvra.orvexd", "/com/kelvra/orvexd", "com.kelvra.orvexd", "getData"));
        dbus_message_set_serial(call.get(), serial);
        live_.insert(serial);
        notes_.push_back(std::make_unique<Note>(Note{live_, serial}));
        dbus_message_set_data(call.get(), slot_, notes_.back().get(), [](void* data) {
            const auto& note = *static_cast<Note*>(data);
            note.live.erase(note.serial);
        });
        pending_.hold(key, *call);
    }

    /// Serial of the call that is taken, 0 when there is none.
    dbus_uint32_t take(const std::string& key) {
        const BusMessage call = pending_.take(key);
        return call ? dbus_message_get_serial(call.get()) : 0;
    }

    using Serials = std::set<dbus_uint32_t>;

    PendingReplies pending_;
    Serials live_; ///< calls that have not been released

private:
    struct Note {
        Serials& live;
        dbus_uint32_t serial;
    };

    dbus_int32_t slot_ = -1;
    std::vector<std::unique_ptr<Note>> notes_;
};

TEST_F(PendingRepliesTest, HeldCallKeepsOneReference) {
    hold("5:2", 7);
    EXPECT_EQ(live_, Serials{7});
    EXPECT_EQ(take("5:2"), 7U);
    EXPECT_EQ(live_, Serials{});
}

TEST_F(PendingRepliesTest, CallIsTakenOnce) {
    hold("5:2", 7);
    EXPECT_EQ(take("5:2"), 7U);
    EXPECT_EQ(take("5:2"), 0U);
}

TEST_F(PendingRepliesTest, NothingIsTakenUnderAnotherKey) {
    hold("5:2", 7);
    EXPECT_EQ(take("5:20"), 0U);
    EXPECT_EQ(take("2:5"), 0U);
    EXPECT_EQ(live_, Serials{7});
}

TEST_F(PendingRepliesTest, SecondCallReplacesTheHeldOne) {
    hold("5:2", 7);
    hold("5:2", 8);
    EXPECT_EQ(live_, Serials{8}) << "the first one is given up";
    EXPECT_EQ(take("5:2"), 8U);
}

TEST_F(PendingRepliesTest, KeysHoldTheirCallsApart) {
    hold("1:1", 1);
    hold("1:2", 2);
    EXPECT_EQ(take("1:2"), 2U);
    EXPECT_EQ(live_, Serials{1});
}

TEST_F(PendingRepliesTest, DroppedCallIsReleased) {
    hold("1:1", 1);
    hold("1:2", 2);
    pending_.drop("1:1");
    EXPECT_EQ(live_, Serials{2});
    EXPECT_EQ(take("1:1"), 0U);
}

TEST_F(PendingRepliesTest, DroppingAnUnknownKeyDoesNothing) {
    hold("1:1", 1);
    pending_.drop("9:9");
    EXPECT_EQ(live_, Serials{1});
}

TEST_F(PendingRepliesTest, ClearReleasesEveryCall) {
    hold("1:1", 1);
    hold("1:2", 2);
    pending_.clear();
    EXPECT_EQ(live_, Serials{});
    EXPECT_EQ(take("1:1"), 0U);
}

TEST_F(PendingRepliesTest, CallsAreReleasedWithIt) {
    {
        PendingReplies other;
        std::swap(other, pending_);
        hold("1:1", 1);
        std::swap(other, pending_);
    }
    EXPECT_EQ(live_, Serials{});
}

} // namespace
} // namespace orvexd
