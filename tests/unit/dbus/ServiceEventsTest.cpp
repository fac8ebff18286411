#include "dbus/BusLink.h"
#include "dbus/ServiceFixture.h"

#include <gtest/gtest.h>
#include <string>

namespace orvexd {
namespace {

constexpr std::uint32_t kAnyCode = 2001;

class ServiceEvents : public test::ServingFixture {
protected:
    void emitEverySignal() {
        service().emitConnectionStatusChanged(3);
        service().emitRequestData(5, 2);
        service().emitErrorSignal(kAnyCode, "text", "5:2");
    }

    /// Holds a getData call for request 2 of connection 1.
    void holdCall() {
        receive(connectCall());
        receive(numbers("attach", {1, 2, 10}));
        receive(numbers("attach", {1, 2, 10}));
        receive(numbers("getData", {1, 2}));
        bus_.sent.clear();
        bus_.calls.clear();
    }
};

struct ErrorSignal {
    dbus_uint32_t code = 0;
    std::string message;
    std::string requests;
};

ErrorSignal errorSignal(const BusMessage& signal) {
    ErrorSignal content;
    const char* message = "";
    const char* requests = "";
    dbus_message_get_args(signal.get(), nullptr, DBUS_TYPE_UINT32, &content.code, DBUS_TYPE_STRING,
                          &message, DBUS_TYPE_STRING, &requests, DBUS_TYPE_INVALID);
    content.message = message;
    content.requests = requests;
    return content;
}

TEST_F(ServiceEvents, SignalsAreSentWithoutWaiting) {
    emitEverySignal();
    EXPECT_EQ(bus_.calls, std::vector<std::string>(3, "dbus_connection_send"));
}

TEST_F(ServiceEvents, SignalIsSkippedWithoutMemoryForIt) {
    bus_.failing = "dbus_message_new_signal";
    emitEverySignal();
    EXPECT_TRUE(bus_.calls.empty());
}

TEST_F(ServiceEvents, SignalIsSkippedWithoutMemoryForItsArguments) {
    bus_.failing = "dbus_message_append_args";
    emitEverySignal();
    EXPECT_TRUE(bus_.calls.empty());
}

TEST_F(ServiceEvents, SignalThatIsNotSentIsForgotten) {
    bus_.failing = "dbus_connection_send";
    EXPECT_NO_THROW(emitEverySignal());
}

TEST_F(ServiceEvents, SignalIsSkippedWithoutAConnection) {
    BusLink::close();
    bus_.calls.clear();
    emitEverySignal();
    EXPECT_TRUE(bus_.calls.empty());
}

TEST_F(ServiceEvents, ErrorTextIsMadeValid) {
    service().emitErrorSignal(kAnyCode, "verf\xFCgbar", "5:2");
    const ErrorSignal signal = errorSignal(bus_.takeSent());
    EXPECT_EQ(signal.code, kAnyCode);
    EXPECT_EQ(signal.message, "verf\xEF\xBF\xBDgbar");
    EXPECT_EQ(signal.requests, "5:2");
}

TEST_F(ServiceEvents, LargestErrorSignalIsOneThatABusPasses) {
    constexpr int kMebibyte = 1024 * 1024;
    const std::string keys(std::size_t{16} * kMebibyte, '1');
    service().emitErrorSignal(kAnyCode, std::string(std::size_t{15} * kMebibyte, 'x'), keys);
    const BusMessage signal = bus_.takeSent();
    ASSERT_TRUE(signal);
    dbus_message_set_serial(signal.get(), 1);
    char* bytes = nullptr;
    int size = 0;
    ASSERT_TRUE(dbus_message_marshal(signal.get(), &bytes, &size));
    dbus_free(bytes);
    EXPECT_GT(size, 30 * kMebibyte) << "both are as long as they may be";
    EXPECT_LT(size, 32 * kMebibyte);
}

TEST_F(ServiceEvents, KeysThatFitIntoNoMessageAreSpreadOverSeveral) {
    const std::string half(std::size_t{12} * 1024 * 1024, '1');
    service().emitErrorSignal(kAnyCode, "text", half + " 2:2 " + half);
    ASSERT_EQ(bus_.sent.size(), 2U);
    for (const BusMessage& sent : bus_.sent) {
        const ErrorSignal signal = errorSignal(sent);
        EXPECT_EQ(signal.code, kAnyCode);
        EXPECT_EQ(signal.message, "text");
    }
    EXPECT_TRUE(errorSignal(bus_.sent.front()).requests == half + " 2:2");
    EXPECT_TRUE(errorSignal(bus_.sent.back()).requests == half);
}

TEST_F(ServiceEvents, ChunkAnswersTheHeldCallOnce) {
    holdCall();
    service().deliverChunk(1, 2, std::string("a\0b", 3), DeliveryCode::PartComplete);
    const BusMessage answer = bus_.takeSent();
    ASSERT_TRUE(answer);
    const char* bytes = nullptr;
    int length = 0;
    dbus_uint32_t code = 0;
    EXPECT_TRUE(dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE,
                                      &bytes, &length, DBUS_TYPE_UINT32, &code, DBUS_TYPE_INVALID));
    EXPECT_EQ(std::string(bytes, static_cast<std::size_t>(length)), std::string("a\0b", 3));
    EXPECT_EQ(code, 2302U);
    service().deliverChunk(1, 2, "more", DeliveryCode::ResponseComplete);
    EXPECT_TRUE(bus_.sent.empty()) << "nobody asks any more";
}

TEST_F(ServiceEvents, ChunkOfAnotherRequestLeavesTheHeldCall) {
    holdCall();
    service().deliverChunk(1, 20, "x", DeliveryCode::PartComplete);
    service().deliverChunk(2, 1, "x", DeliveryCode::PartComplete);
    EXPECT_TRUE(bus_.sent.empty());
    service().deliverChunk(1, 2, "x", DeliveryCode::PartComplete);
    EXPECT_TRUE(bus_.takeSent());
}

TEST_F(ServiceEvents, ChunkWithoutMemoryForTheAnswerGivesTheHeldCallUp) {
    holdCall();
    bus_.failing = "dbus_message_append_args";
    service().deliverChunk(1, 2, "x", DeliveryCode::PartComplete);
    bus_.failing.clear();
    service().deliverChunk(1, 2, "x", DeliveryCode::PartComplete);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(ServiceEvents, CallWithoutMemoryForItsAnswerIsNotHeld) {
    holdCall();
    bus_.failing = "dbus_message_new_method_return";
    receive(numbers("getData", {1, 2}));
    bus_.failing.clear();
    service().deliverChunk(1, 2, "x", DeliveryCode::PartComplete);
    EXPECT_TRUE(bus_.sent.empty()) << "and it has replaced the one before it";
}

TEST_F(ServiceEvents, ChunkThatIsNotSentIsFatal) {
    holdCall();
    bus_.failing = "dbus_connection_send";
    EXPECT_THROW(service().deliverChunk(1, 2, "x", DeliveryCode::PartComplete), std::string);
}

TEST_F(ServiceEvents, DroppedCallGetsNoAnswer) {
    holdCall();
    service().dropPending(1, 20);
    service().dropPending(1, 2);
    service().deliverChunk(1, 2, "x", DeliveryCode::PartComplete);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(ServiceEvents, ExchangeIsPermittedAsThePlatformSays) {
    EXPECT_TRUE(service().isExchangePermitted());
    fake_platform::change([](auto& state) { state.enabled = false; });
    EXPECT_FALSE(service().isExchangePermitted());
}

TEST_F(ServiceEvents, ExchangeIsPermittedWithoutSettings) {
    fake_platform::change([](auto& state) {
        state.enabled = false;
        state.settingsExist = false;
    });
    begin();
    EXPECT_TRUE(service().isExchangePermitted());
}

} // namespace
} // namespace orvexd
