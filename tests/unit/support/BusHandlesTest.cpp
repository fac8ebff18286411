#include "support/BusHandles.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

void countFree(void* counter) {
    ++*static_cast<int*>(counter);
}

/// A message that adds one to `freed` when its last reference goes.
BusMessage countedMessage(dbus_int32_t slot, int& freed) {
    BusMessage message(dbus_message_new(DBUS_MESSAGE_TYPE_SIGNAL));
    dbus_message_set_data(message.get(), slot, &freed, countFree);
    return message;
}

class BusMessageTest : public testing::Test {
protected:
    BusMessageTest() { dbus_message_allocate_data_slot(&slot_); }
    ~BusMessageTest() override { dbus_message_free_data_slot(&slot_); }

    BusMessage make() { return countedMessage(slot_, freed_); }

    int freed_ = 0;

private:
    dbus_int32_t slot_ = -1;
};

TEST_F(BusMessageTest, GivesItsReferenceBack) {
    { const BusMessage message = make(); }
    EXPECT_EQ(freed_, 1);
}

TEST_F(BusMessageTest, HoldsOneReferenceOnly) {
    BusMessage first = make();
    { const BusMessage second(dbus_message_ref(first.get())); }
    EXPECT_EQ(freed_, 0);
    first.reset();
    EXPECT_EQ(freed_, 1);
}

TEST(BusError, IsNotSetInTheBeginning) {
    const BusError error;
    EXPECT_FALSE(error.isSet());
    EXPECT_EQ(error.name(), nullptr);
    EXPECT_EQ(error.message(), nullptr);
}

TEST(BusError, TellsNameAndMessageAndFreesThem) {
    BusError error;
    // A message with arguments is a copy that the error owns; a leak check sees when it stays.
    dbus_set_error(error.get(), "com.kelvra.orvexd.Error", "(%d) %s", 41, "unspecifiedError");
    EXPECT_TRUE(error.isSet());
    EXPECT_STREQ(error.name(), "com.kelvra.orvexd.Error");
    EXPECT_STREQ(error.message(), "(41) unspecifiedError");
}

} // namespace
} // namespace orvexd
