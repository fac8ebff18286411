#include "dbus/BusLink.h"

#include "fakes/FakeBus.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace orvexd {
namespace {

class BusLinkTest : public testing::Test {
protected:
    BusLinkTest() { BusLink::open(BusConnection(fake_bus::FakeBus::connection())); }
    ~BusLinkTest() override { BusLink::close(); }
    BusLinkTest(const BusLinkTest&) = delete;
    BusLinkTest& operator=(const BusLinkTest&) = delete;

    static BusMessage anyMessage() { return fake_bus::call("any"); }

    fake_bus::FakeBus bus_;
};

TEST_F(BusLinkTest, SignalHasPathInterfaceAndMember) {
    BusMessage message;
    EXPECT_EQ(BusLink::createSignal("requestData", message), 0);
    ASSERT_TRUE(message);
    EXPECT_STREQ(dbus_message_get_path(message.get()), "/com/kelvra/orvexd");
    EXPECT_TRUE(dbus_message_is_signal(message.get(), "com.kelvra.orvexd", "requestData"));
}

TEST_F(BusLinkTest, SignalWithoutAConnectionIs2204) {
    BusLink::close();
    BusMessage message;
    EXPECT_EQ(BusLink::createSignal("requestData", message), 2204);
    EXPECT_FALSE(message);
}

TEST_F(BusLinkTest, SignalWithoutMemoryIs2001) {
    bus_.failing = "dbus_message_new_signal";
    BusMessage message;
    EXPECT_EQ(BusLink::createSignal("requestData", message), 2001);
    EXPECT_FALSE(message);
}

TEST_F(BusLinkTest, MessageIsSentAndFlushed) {
    BusLink::sendOrThrow(anyMessage());
    EXPECT_EQ(bus_.calls,
              (std::vector<std::string>{"dbus_connection_send", "dbus_connection_flush"}));
}

TEST_F(BusLinkTest, NothingIsSentWithoutAMessage) {
    BusLink::sendOrThrow(nullptr);
    EXPECT_TRUE(bus_.calls.empty());
}

TEST_F(BusLinkTest, NothingIsSentWithoutAConnection) {
    BusLink::close();
    bus_.calls.clear();
    BusLink::sendOrThrow(anyMessage());
    EXPECT_TRUE(bus_.calls.empty());
}

TEST_F(BusLinkTest, RefusedMessageIsFatal) {
    bus_.failing = "dbus_connection_send";
    try {
        BusLink::sendOrThrow(anyMessage());
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::string& text) {
        EXPECT_EQ(text, "error: dbus_connection_send() failed -> EXIT");
    }
    EXPECT_EQ(bus_.calls, std::vector<std::string>{"dbus_connection_send"}) << "not flushed";
}

TEST_F(BusLinkTest, ErrorTellsItsCodeInItsText) {
    const BusMessage call = anyMessage();
    BusLink::sendError(*call, 2002);
    const BusMessage answer = bus_.takeSent();
    ASSERT_TRUE(answer);
    EXPECT_EQ(dbus_message_get_reply_serial(answer.get()), dbus_message_get_serial(call.get()));
    BusError error;
    ASSERT_TRUE(dbus_set_error_from_message(error.get(), answer.get()));
    EXPECT_STREQ(error.name(), "com.kelvra.orvexd.Error");
    EXPECT_STREQ(error.message(), "(2002) unspecifiedError");
}

TEST_F(BusLinkTest, ErrorWithoutMemoryIsFatal) {
    bus_.failing = "dbus_message_new_error_printf";
    EXPECT_THROW(BusLink::sendError(*anyMessage(), 41), std::string);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(BusLinkTest, MessageThatWasNeverSentGetsNoError) {
    const BusMessage message(
        dbus_message_new_method_call(nullptr, "/com/kelvra/orvexd", nullptr, "any"));
    BusLink::sendError(*message, 41);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(BusLinkTest, RefusalHasTheNameAndTheText) {
    BusLink::refuse(*anyMessage(), DBUS_ERROR_LIMITS_EXCEEDED, "No more.");
    const BusMessage reply = bus_.takeSent();
    ASSERT_TRUE(reply);
    EXPECT_TRUE(dbus_message_is_error(reply.get(), DBUS_ERROR_LIMITS_EXCEEDED));
    EXPECT_STREQ(dbus_message_get_destination(reply.get()), ":1.5");
}

TEST_F(BusLinkTest, SignalIsNotRefused) {
    BusLink::refuse(*fake_bus::signal("cancel"), DBUS_ERROR_LIMITS_EXCEEDED, "No more.");
    EXPECT_TRUE(bus_.sent.empty());
}

// -- questions to the bus ------------------------------------------------------------------------

class BusQuestionTest : public BusLinkTest {
protected:
    bool ask(const char* argument = ":1.5") {
        return question_->ask("NameHasOwner", argument,
                              [this](DBusMessage& /*reply*/) { ++answers_; });
    }

    std::unique_ptr<BusQuestion> question_ = std::make_unique<BusQuestion>();
    int answers_ = 0;
};

TEST_F(BusQuestionTest, IsPendingUntilItIsAnswered) {
    bus_.answersAtOnce = false;
    EXPECT_TRUE(ask());
    EXPECT_TRUE(question_->isPending());
    bus_.answerQuestion();
    EXPECT_FALSE(question_->isPending());
    EXPECT_EQ(answers_, 1);
}

TEST_F(BusQuestionTest, TakesAnAnswerThatIsThereAlready) {
    EXPECT_TRUE(ask());
    EXPECT_FALSE(question_->isPending());
    EXPECT_EQ(answers_, 1);
}

TEST_F(BusQuestionTest, IsGivenUpWithItsOwner) {
    bus_.answersAtOnce = false;
    EXPECT_TRUE(ask());
    question_.reset();
    EXPECT_TRUE(bus_.asked.empty());
    EXPECT_EQ(answers_, 0);
}

TEST_F(BusQuestionTest, MayBeEndedByItsAnswer) {
    EXPECT_TRUE(question_->ask("ListNames", nullptr, [this](DBusMessage& /*reply*/) {
        question_.reset();
        ++answers_;
    }));
    EXPECT_EQ(answers_, 1);
    EXPECT_TRUE(bus_.asked.empty());
}

TEST_F(BusQuestionTest, MayBeAskedAgain) {
    EXPECT_TRUE(ask());
    EXPECT_TRUE(ask());
    EXPECT_EQ(answers_, 2);
}

TEST_F(BusQuestionTest, IsNotAskedWithoutAConnection) {
    BusLink::close();
    EXPECT_FALSE(ask());
    EXPECT_EQ(answers_, 0);
}

} // namespace
} // namespace orvexd
