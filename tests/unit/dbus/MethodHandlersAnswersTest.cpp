// What a client gets for its calls: results, failure codes, silence. What happens without memory is
// in MethodHandlersTest.cpp, the same calls on a real bus are in the integration tests.

#include "dbus/ServiceFixture.h"
#include "fakes/FakeCurl.h"
#include "fakes/FakeThreads.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {
namespace {

constexpr auto kHandled = DBUS_HANDLER_RESULT_HANDLED;
constexpr auto kNotHandled = DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
constexpr dbus_uint32_t kNotFlagged = 2;
constexpr dbus_uint32_t kAny = 3;
constexpr std::string_view kBadArguments = "com.kelvra.orvexd.Error (2002) unspecifiedError";

class MethodAnswers : public test::ServingFixture {
protected:
    /// The only message that comes back for this one, which is handled.
    BusMessage ask(const BusMessage& message) {
        bus_.sent.clear();
        EXPECT_EQ(receive(message), kHandled) << dbus_message_get_member(message.get());
        return bus_.takeSent();
    }

    std::int64_t askNumber(const BusMessage& message) { return numberOf(ask(message)); }
    std::string askError(const BusMessage& message) { return errorOf(ask(message)); }

    static std::string error(int code) {
        return "com.kelvra.orvexd.Error (" + std::to_string(code) + ") unspecifiedError";
    }

    static BusMessage connectWith(const std::vector<std::string>& texts, dbus_uint32_t chunkSize) {
        BusMessage message = fake_bus::call("connect");
        for (const std::string& text : texts) {
            const char* bytes = text.data();
            dbus_message_append_args(message.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes,
                                     static_cast<int>(text.size()), DBUS_TYPE_INVALID);
        }
        dbus_message_append_args(message.get(), DBUS_TYPE_UINT32, &chunkSize, DBUS_TYPE_INVALID);
        return message;
    }

    static BusMessage sendData(std::string_view data, bool last, dbus_uint32_t connectionId,
                               dbus_uint32_t requestId) {
        const char* bytes = data.data();
        const dbus_bool_t lastPart = last ? TRUE : FALSE;
        return call("sendData", DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes,
                    static_cast<int>(data.size()), DBUS_TYPE_BOOLEAN, &lastPart, DBUS_TYPE_UINT32,
                    &connectionId, DBUS_TYPE_UINT32, &requestId);
    }

    /// The result of a sendData call; -1 when the answer holds none.
    std::int64_t askResult(const BusMessage& message) {
        const BusMessage answer = ask(message);
        dbus_int32_t value = -1;
        const bool found = answer && dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_INT32,
                                                           &value, DBUS_TYPE_INVALID) != FALSE;
        return found ? value : -1;
    }

    static BusMessage property(const char* interface, const char* name) {
        BusMessage message = fake_bus::call("Get", "org.freedesktop.DBus.Properties");
        dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING,
                                 &name, DBUS_TYPE_INVALID);
        return message;
    }

    static BusMessage cancelSignal(const std::vector<dbus_uint32_t>& values) {
        BusMessage message = fake_bus::signal("cancel");
        for (const dbus_uint32_t& value : values) {
            dbus_message_append_args(message.get(), DBUS_TYPE_UINT32, &value, DBUS_TYPE_INVALID);
        }
        return message;
    }

    static std::string signatureOf(const BusMessage& message) {
        return message ? dbus_message_get_signature(message.get()) : "no message";
    }
};

// -- connections ---------------------------------------------------------------------------------

TEST_F(MethodAnswers, ConnectGivesTheNextId) {
    const BusMessage first = ask(connectCall());
    EXPECT_EQ(signatureOf(first), "u");
    EXPECT_EQ(numberOf(first), 1);
    EXPECT_EQ(askNumber(connectCall()), 2);
}

TEST_F(MethodAnswers, ConnectWithoutItsArgumentsIsRefused) {
    EXPECT_EQ(askError(fake_bus::call("connect")), kBadArguments);
    EXPECT_EQ(askError(numbers("connect", {1, 2, 3, 4, 5, 6})), kBadArguments);
    EXPECT_EQ(askError(connectWith({"a", "b", "c", "d"}, 1)), kBadArguments);
    EXPECT_EQ(askNumber(connectCall()), 1) << "no id was used up";
}

TEST_F(MethodAnswers, DisconnectIsAnsweredWithNothingAndClosesTheConnection) {
    askNumber(connectCall());
    EXPECT_EQ(signatureOf(ask(numbers("disconnect", {1}))), "");
    EXPECT_EQ(askError(numbers("attach", {1, kNotFlagged, 10})), error(1001));
}

TEST_F(MethodAnswers, DisconnectOfAnUnknownConnectionIsAnsweredAllTheSame) {
    EXPECT_EQ(signatureOf(ask(numbers("disconnect", {17}))), "");
}

TEST_F(MethodAnswers, DisconnectWithoutANumberGetsCode0AndClosesNothing) {
    askNumber(connectCall());
    const char* text = "1";
    EXPECT_EQ(askError(call("disconnect", DBUS_TYPE_STRING, &text)), error(0));
    EXPECT_EQ(askError(fake_bus::call("disconnect")), error(0));
    EXPECT_EQ(askNumber(numbers("attach", {1, kNotFlagged, 10})), 1);
}

// -- requests ------------------------------------------------------------------------------------

TEST_F(MethodAnswers, AttachGivesTheNextIdAcrossConnections) {
    askNumber(connectCall());
    askNumber(connectCall());
    const BusMessage first = ask(numbers("attach", {1, kNotFlagged, 10}));
    EXPECT_EQ(signatureOf(first), "u");
    EXPECT_EQ(numberOf(first), 1);
    EXPECT_EQ(askNumber(numbers("attach", {2, kNotFlagged, 10})), 2);
}

TEST_F(MethodAnswers, RequestWithoutItsArgumentsIsRefused) {
    askNumber(connectCall());
    for (const char* member : {"attach", "prepare"}) {
        EXPECT_EQ(askError(fake_bus::call(member)), kBadArguments) << member;
        EXPECT_EQ(askError(numbers(member, {1, kAny})), kBadArguments) << member;
    }
}

TEST_F(MethodAnswers, RequestOfAnUnknownConnectionGetsCode1001) {
    for (const char* member : {"attach", "prepare"}) {
        EXPECT_EQ(askError(numbers(member, {9, kAny, 10})), error(1001)) << member;
    }
}

TEST_F(MethodAnswers, RequestWhilePositioningIsNotPermittedGetsCode2205) {
    askNumber(connectCall());
    fake_platform::change([](fake_platform::State& state) { state.permitted = false; });
    for (const char* member : {"attach", "prepare"}) {
        EXPECT_EQ(askError(numbers(member, {1, kAny, 10})), error(2205)) << member;
        EXPECT_EQ(askError(fake_bus::call(member)), error(2205)) << member << " comes before 2002";
    }
    EXPECT_EQ(askNumber(connectCall()), 2) << "a connection needs no permission";
}

TEST_F(MethodAnswers, RequestIsPermittedWhenThePlatformHasNoSettings) {
    fake_platform::change([](fake_platform::State& state) {
        state.settingsExist = false;
        state.permitted = false;
    });
    begin();
    askNumber(connectCall());
    EXPECT_EQ(askNumber(numbers("attach", {1, kNotFlagged, 10})), 1);
}

TEST_F(MethodAnswers, PreparePolicyThatTheNetworkDoesNotMeetGetsCode2204) {
    askNumber(connectCall());
    constexpr dbus_uint32_t kKindOneOnly = 0;
    EXPECT_EQ(askError(numbers("prepare", {1, kKindOneOnly, 10})), error(2204));
    EXPECT_EQ(askNumber(numbers("attach", {1, kKindOneOnly, 10})), 1) << "attach waits for one";
}

// -- data ----------------------------------------------------------------------------------------

TEST_F(MethodAnswers, SendDataIsAnsweredWithTheCodeOfTheCore) {
    askNumber(connectCall());
    EXPECT_EQ(signatureOf(ask(sendData("x", true, 9, 1))), "i");
    EXPECT_EQ(askResult(sendData("x", true, 9, 1)), 1001) << "unknown connection";
    EXPECT_EQ(askResult(sendData("x", true, 1, 1)), 41) << "unknown request";
    askNumber(numbers("attach", {1, kNotFlagged, 10}));
    EXPECT_EQ(askResult(sendData("x", true, 1, 1)), 57) << "not asked for";
    EXPECT_EQ(askResult(sendData("", false, 1, 1)), 57) << "an empty array is an argument, too";
}

TEST_F(MethodAnswers, SendDataWithoutItsArgumentsIsRefused) {
    EXPECT_EQ(askError(fake_bus::call("sendData")), kBadArguments);
    EXPECT_EQ(askError(numbers("sendData", {1, 1, 1, 1})), kBadArguments);
}

TEST_F(MethodAnswers, GetDataIsHeldUntilAChunkComes) {
    askNumber(connectCall());
    askNumber(numbers("attach", {1, kNotFlagged, 10}));
    EXPECT_FALSE(ask(numbers("getData", {1, 1})));
    service().deliverChunk(1, 1, "chunk", DeliveryCode::ResponseComplete);
    const BusMessage answer = bus_.takeSent();
    EXPECT_EQ(signatureOf(answer), "ayu");
    EXPECT_FALSE(ask(numbers("getData", {1, 1}))) << "each call has its own chunk";
}

TEST_F(MethodAnswers, GetDataWithoutItsArgumentsIsRefused) {
    EXPECT_EQ(askError(fake_bus::call("getData")), kBadArguments);
    EXPECT_EQ(askError(numbers("getData", {1})), kBadArguments);
}

TEST_F(MethodAnswers, GetDataOfAnUnknownRequestGetsCode41) {
    askNumber(connectCall());
    EXPECT_EQ(askError(numbers("getData", {1, 1})), error(41));
}

// -- cancel --------------------------------------------------------------------------------------

TEST_F(MethodAnswers, CancelEndsTheRequestWithoutAnAnswer) {
    askNumber(connectCall());
    askNumber(numbers("attach", {1, kNotFlagged, 10}));
    EXPECT_FALSE(ask(cancelSignal({1, 1})));
    EXPECT_EQ(askError(numbers("getData", {1, 1})), error(41));
}

TEST_F(MethodAnswers, CancelWithoutItsArgumentsGetsCode0) {
    askNumber(connectCall());
    askNumber(numbers("attach", {1, kNotFlagged, 10}));
    EXPECT_EQ(askError(cancelSignal({1})), error(0));
    EXPECT_FALSE(ask(numbers("getData", {1, 1}))) << "the request is still there";
}

TEST_F(MethodAnswers, CancelIsASignalAndNoMethod) {
    EXPECT_EQ(receive(numbers("cancel", {1, 1})), kNotHandled);
    EXPECT_EQ(receive(fake_bus::signal("quit")), kNotHandled);
    EXPECT_EQ(mainLoop_.quits, 0);
}

// -- quit ----------------------------------------------------------------------------------------

TEST_F(MethodAnswers, QuitForgetsRequestsAndConnections) {
    askNumber(connectCall());
    askNumber(numbers("attach", {1, kNotFlagged, 10}));
    EXPECT_EQ(signatureOf(ask(fake_bus::call("quit"))), "");
    EXPECT_EQ(askError(numbers("getData", {1, 1})), error(41));
    EXPECT_EQ(askError(numbers("attach", {1, kNotFlagged, 10})), error(1001));
}

TEST_F(MethodAnswers, QuitDelayedIsAnsweredAtOnceAndQuitsLater) {
    EXPECT_EQ(signatureOf(ask(fake_bus::call("quitDelayed"))), "");
    EXPECT_EQ(mainLoop_.quits, 0);
}

TEST_F(MethodAnswers, SecondQuitDelayedDoesNotPostponeTheFirst) {
    ask(fake_bus::call("quitDelayed"));
    test::passTime(std::chrono::seconds(30));
    ask(fake_bus::call("quitDelayed"));
    EXPECT_EQ(mainLoop_.quits, 0);
    test::passTime(std::chrono::seconds(30));
    EXPECT_EQ(mainLoop_.quits, 1);
    test::passTime(std::chrono::seconds(30));
    EXPECT_EQ(mainLoop_.quits, 1) << "one delay, one quit";
}

// -- property ------------------------------------------------------------------------------------

TEST_F(MethodAnswers, ConnectionStatusIsAVariantThatHoldsANumber) {
    fake_platform::connect(1);
    begin();
    const BusMessage answer = ask(statusQuestion());
    ASSERT_EQ(signatureOf(answer), "v");
    DBusMessageIter variant;
    DBusMessageIter value;
    dbus_message_iter_init(answer.get(), &variant);
    dbus_message_iter_recurse(&variant, &value);
    ASSERT_EQ(dbus_message_iter_get_arg_type(&value), DBUS_TYPE_UINT32);
    dbus_uint32_t status = 0;
    dbus_message_iter_get_basic(&value, &status);
    EXPECT_EQ(status, 3U);
}

TEST_F(MethodAnswers, OtherPropertiesAreLeftToTheLibrary) {
    constexpr const char* kOurs = "com.kelvra.orvexd";
    EXPECT_EQ(receive(property(kOurs, "connectionstatus")), kNotHandled);
    EXPECT_EQ(receive(property(kOurs, "")), kNotHandled);
    EXPECT_EQ(receive(property("com.kelvra.other", "connectionStatus")), kNotHandled);
    EXPECT_EQ(receive(fake_bus::call("Get", "org.freedesktop.DBus.Properties")), kNotHandled);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(MethodAnswers, MethodsOfNobodyAreLeftToTheLibrary) {
    EXPECT_EQ(receive(fake_bus::call("Connect")), kNotHandled);
    EXPECT_EQ(receive(fake_bus::call("quit", "com.kelvra.other")), kNotHandled);
    EXPECT_EQ(receive(fake_bus::call("Get")), kNotHandled) << "of the wrong interface";
    EXPECT_EQ(mainLoop_.quits, 0);
}

// -- a whole exchange ----------------------------------------------------------------------------

class ServedExchange : public MethodAnswers {
protected:
    ServedExchange() {
        fake_curl::reset();
        fake_threads::reset();
        fake_platform::connect(1);
        begin();
    }

    /// Runs the main loop until a signal with this name is sent, and takes all that was sent.
    bool awaitSignal(const std::string& name) {
        const bool come = test::iterateUntil([&] {
            for (const BusMessage& message : bus_.sent) {
                const char* member = dbus_message_get_member(message.get());
                if (member != nullptr && name == member) {
                    return true;
                }
            }
            return false;
        });
        bus_.sent.clear();
        return come;
    }

    std::string body_;
};

TEST_F(ServedExchange, SendsWhatTheClientGaveToConnectAndSendData) {
    fake_curl::addScript([this](fake_curl::Transfer& transfer) {
        EXPECT_TRUE(transfer.readAll(body_));
        return CURLE_COULDNT_CONNECT;
    });
    const std::string data("da\0ta", 5);
    askNumber(connectWith({"Element", "kind", "7.1", "binary", "text/x-test"}, 100));
    EXPECT_EQ(askNumber(numbers("prepare", {1, kAny, 10})), 1);
    ASSERT_TRUE(awaitSignal("requestData"));
    EXPECT_EQ(askResult(sendData(data, false, 1, 1)), 0);
    EXPECT_EQ(askResult(sendData("end", true, 1, 1)), 0);
    ASSERT_TRUE(awaitSignal("errorSignal"));
    for (const char* text : {"<Element ", "type=\"kind\"", "version=\"7.1\"",
                             "Content-Transfer-Encoding: binary", "text/x-test"}) {
        EXPECT_NE(body_.find(text), std::string::npos) << text << " in\n" << body_;
    }
    EXPECT_NE(body_.find(data + "end\r\n--"), std::string::npos) << body_;
}

} // namespace
} // namespace orvexd
