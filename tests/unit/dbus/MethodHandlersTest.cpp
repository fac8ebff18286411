// What the handlers do when libdbus has no memory for an answer, or does not send it. What they
// answer otherwise is in MethodHandlersAnswersTest.cpp, and is tested on a real bus, too.

#include "dbus/ServiceFixture.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <gtest/gtest.h>
#include <string>

namespace orvexd {
namespace {

constexpr auto kHandled = DBUS_HANDLER_RESULT_HANDLED;
constexpr auto kNotHandled = DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
constexpr const char* kNewReturn = "dbus_message_new_method_return";

class MethodHandlers : public test::ServingFixture {
protected:
    /// Opens connection 1 and gives its answer back.
    std::int64_t connect() {
        receive(connectCall());
        return numberOf(bus_.takeSent());
    }

    /// Sends the message while `function` fails.
    DBusHandlerResult receiveWithout(const char* function, const BusMessage& message) {
        bus_.failing = function;
        const DBusHandlerResult result = receive(message);
        bus_.failing.clear();
        return result;
    }

    static BusMessage sendDataCall() {
        const char* bytes = "x";
        const dbus_bool_t last = TRUE;
        const dbus_uint32_t id = 1;
        return call("sendData", DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &bytes, 1, DBUS_TYPE_BOOLEAN,
                    &last, DBUS_TYPE_UINT32, &id, DBUS_TYPE_UINT32, &id);
    }
};

TEST_F(MethodHandlers, ConnectWithoutMemoryForTheReturnDoesNothing) {
    EXPECT_EQ(receiveWithout(kNewReturn, connectCall()), kHandled);
    EXPECT_TRUE(bus_.sent.empty());
    EXPECT_EQ(connect(), 1) << "no id was used up";
}

TEST_F(MethodHandlers, ConnectWithoutMemoryForTheIdSendsNothing) {
    const BusMessage call = connectCall();
    EXPECT_EQ(receiveWithout("dbus_message_append_args", call), kHandled);
    EXPECT_TRUE(bus_.sent.empty());
    EXPECT_EQ(connect(), 2) << "the connection was opened";
}

TEST_F(MethodHandlers, DisconnectWithoutMemoryForTheReturnIsLeftToTheLibrary) {
    connect();
    EXPECT_EQ(receiveWithout(kNewReturn, numbers("disconnect", {1})), kNotHandled);
    EXPECT_TRUE(bus_.sent.empty());
    receive(numbers("attach", {1, 2, 10}));
    EXPECT_EQ(errorOf(bus_.takeSent()), "com.kelvra.orvexd.Error (1001) unspecifiedError")
        << "the connection was closed";
}

TEST_F(MethodHandlers, RequestWithoutMemoryForTheReturnIsLeftToTheLibrary) {
    connect();
    for (const char* member : {"attach", "prepare"}) {
        EXPECT_EQ(receiveWithout(kNewReturn, numbers(member, {1, 2, 10})), kNotHandled) << member;
        EXPECT_TRUE(bus_.sent.empty()) << member;
    }
    receive(numbers("attach", {1, 2, 10}));
    EXPECT_EQ(numberOf(bus_.takeSent()), 1) << "no id was used up";
}

TEST_F(MethodHandlers, RequestWithoutMemoryForTheIdSendsNothing) {
    connect();
    const BusMessage call = numbers("attach", {1, 2, 10});
    EXPECT_EQ(receiveWithout("dbus_message_append_args", call), kHandled);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(MethodHandlers, SendDataWithoutMemoryForTheReturnDoesNothing) {
    const BusMessage call = sendDataCall();
    EXPECT_EQ(receiveWithout(kNewReturn, call), kHandled);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(MethodHandlers, StatusWithoutMemoryForTheReturnIsLeftToTheLibrary) {
    EXPECT_EQ(receiveWithout(kNewReturn, statusQuestion()), kNotHandled);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(MethodHandlers, QuitWithoutMemoryForTheReturnEndsTheLoopAllTheSame) {
    EXPECT_EQ(receiveWithout(kNewReturn, fake_bus::call("quit")), kHandled);
    EXPECT_TRUE(bus_.sent.empty());
    EXPECT_EQ(mainLoop_.quits, 1);
}

TEST_F(MethodHandlers, QuitAnswersBeforeTheLoopEnds) {
    EXPECT_EQ(receive(fake_bus::call("quit")), kHandled);
    EXPECT_TRUE(bus_.takeSent());
    EXPECT_EQ(mainLoop_.quits, 1);
}

// -- held calls ----------------------------------------------------------------------------------

TEST_F(MethodHandlers, RefusedGetDataIsNotHeldOn) {
    receive(numbers("getData", {1, 1}));
    EXPECT_EQ(errorOf(bus_.takeSent()), "com.kelvra.orvexd.Error (41) unspecifiedError");
    service().deliverChunk(1, 1, "x", DeliveryCode::PartComplete);
    EXPECT_TRUE(bus_.sent.empty());
}

TEST_F(MethodHandlers, QuitGivesHeldCallsUp) {
    connect();
    receive(numbers("attach", {1, 2, 10}));
    receive(numbers("getData", {1, 1}));
    bus_.sent.clear();
    receive(fake_bus::call("quit"));
    EXPECT_TRUE(bus_.takeSent()) << "the answer to quit";
    service().deliverChunk(1, 1, "x", DeliveryCode::PartComplete);
    EXPECT_TRUE(bus_.sent.empty());
}

// -- delayed quit --------------------------------------------------------------------------------

class DelayedQuit : public MethodHandlers {
protected:
    static constexpr std::chrono::seconds kDelay{60};

    DelayedQuit() { connect(); }

    /// Asks for a quit, sends the message and lets the delay pass.
    int quitsAfter(const BusMessage& message, const char* failing = "") {
        receive(fake_bus::call("quitDelayed"));
        receiveWithout(failing, message);
        test::passTime(kDelay);
        return mainLoop_.quits;
    }
};

TEST_F(DelayedQuit, ComesAfterTheDelayAndNotBefore) {
    receive(fake_bus::call("quitDelayed"));
    test::passTime(kDelay - std::chrono::seconds(5));
    EXPECT_EQ(mainLoop_.quits, 0);
    test::passTime(std::chrono::seconds(5));
    EXPECT_EQ(mainLoop_.quits, 1);
}

TEST_F(DelayedQuit, ComesAfterTheConfiguredDelay) {
    ConfHandler::setParameter("daemon_shutdown_delay", "1");
    begin();
    receive(fake_bus::call("quitDelayed"));
    test::passTime(std::chrono::seconds(1));
    EXPECT_EQ(mainLoop_.quits, 1);
}

TEST_F(DelayedQuit, IsNotCalledOffByAQuestion) {
    EXPECT_EQ(quitsAfter(statusQuestion()), 1);
}

TEST_F(DelayedQuit, WithoutMemoryForTheReturnComesAllTheSame) {
    EXPECT_EQ(receiveWithout(kNewReturn, fake_bus::call("quitDelayed")), kHandled);
    EXPECT_EQ(quitsAfter(statusQuestion()), 1);
}

TEST_F(DelayedQuit, IsCalledOffByAHandledRequest) {
    EXPECT_EQ(quitsAfter(numbers("attach", {1, 2, 10})), 0);
}

TEST_F(DelayedQuit, IsNotCalledOffByMessagesThatMakeNothing) {
    receive(numbers("attach", {1, 2, 10}));
    receive(fake_bus::call("quitDelayed"));
    receive(sendDataCall());
    receive(numbers("getData", {1, 1}));
    receive(fake_bus::signal("cancel"));
    receive(numbers("disconnect", {1}));
    test::passTime(kDelay);
    EXPECT_EQ(mainLoop_.quits, 1);
}

TEST_F(DelayedQuit, IsCalledOffByAConnectThatGetsNoAnswer) {
    EXPECT_EQ(quitsAfter(connectCall(), kNewReturn), 0);
}

TEST_F(DelayedQuit, IsNotCalledOffByARequestThatIsLeftToTheLibrary) {
    EXPECT_EQ(quitsAfter(numbers("attach", {1, 2, 10}), kNewReturn), 1);
}

// -- answers that cannot be sent -----------------------------------------------------------------

class UnsentAnswer : public MethodHandlers {
protected:
    static constexpr int kTerminated = 77;

    UnsentAnswer() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    void dies(const BusMessage& message, const char* failing = "dbus_connection_send") {
        bus_.failing = failing;
        EXPECT_EXIT(
            {
                // The daemon's handler aborts, which an emulator would report.
                std::set_terminate([] { std::_Exit(kTerminated); });
                receive(message);
            },
            testing::ExitedWithCode(kTerminated), "^$")
            << dbus_message_get_member(message.get());
        bus_.failing.clear();
    }
};

TEST_F(UnsentAnswer, EndsTheProcessWithoutAWord) {
    dies(connectCall());
    dies(fake_bus::call("quitDelayed"));
}

TEST_F(UnsentAnswer, IsNotTakenForAFailureCodeOfTheCore) {
    connect();
    dies(numbers("attach", {1, 2, 10}));
}

TEST_F(UnsentAnswer, EndsTheProcessWhenItIsAnErrorWithoutMemory) {
    dies(numbers("getData", {1, 1}), "dbus_message_new_error_printf");
}

} // namespace
} // namespace orvexd
