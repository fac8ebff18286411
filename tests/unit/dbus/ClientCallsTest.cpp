// Messages that wait: for the bus to say whose they are, and for what clients have left behind.

#include "dbus/ClientCalls.h"

#include "dbus/ServiceFixture.h"

#include <algorithm>
#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace orvexd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto kHandled = DBUS_HANDLER_RESULT_HANDLED;
constexpr auto kNotHandled = DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
constexpr const char* kUnknownConnection = "com.kelvra.orvexd.Error (1001) unspecifiedError";

/// A bus whose answers a test gives when it likes.
class ClientCallsTest : public ServingFixture {
protected:
    ClientCallsTest() {
        bus_.answersAtOnce = false;
        bus_.users = {{":1.1", 1000}, {":1.2", 1000}, {":1.3", 1001}};
    }

    static BusMessage from(const char* sender, BusMessage message) {
        dbus_message_set_sender(message.get(), sender);
        return message;
    }

    /// A connect call whose first argument has this size.
    static BusMessage connectWith(std::size_t size) {
        const std::string bytes(size, 'e');
        const char* data = bytes.data();
        const char* other = "x";
        const dbus_uint32_t chunkSize = 1000;
        return call("connect", DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data, static_cast<int>(size),
                    DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &other, 1, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE,
                    &other, 1, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &other, 1, DBUS_TYPE_ARRAY,
                    DBUS_TYPE_BYTE, &other, 0, DBUS_TYPE_UINT32, &chunkSize);
    }

    /// A sendData call for a connection that nobody has.
    static BusMessage sendDataOf(std::size_t size) {
        const std::string bytes(size, 'e');
        const char* data = bytes.data();
        const dbus_bool_t last = TRUE;
        const dbus_uint32_t id = 0xffff;
        return call("sendData", DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data, static_cast<int>(size),
                    DBUS_TYPE_BOOLEAN, &last, DBUS_TYPE_UINT32, &id, DBUS_TYPE_UINT32, &id);
    }

    /// What has been sent since the last call: a number, an error's name and text, or the member of
    /// another message.
    std::vector<std::string> answers() {
        std::vector<std::string> texts;
        for (const BusMessage& sent : std::exchange(bus_.sent, {})) {
            const std::string error = errorOf(sent);
            const std::int64_t number = numberOf(sent);
            const char* const signature = dbus_message_get_signature(sent.get());
            texts.push_back(!error.empty()       ? error
                            : number >= 0        ? std::to_string(number)
                            : *signature == '\0' ? "done"
                                                 : signature);
        }
        return texts;
    }

    /// Makes the user of this name known.
    void know(const char* sender) {
        receive(from(sender, numbers("disconnect", {0xffff})));
        bus_.answerQuestion();
        ASSERT_THAT(answers(), ElementsAre("done"));
    }
};

// -- the user of a name --------------------------------------------------------------------------

TEST_F(ClientCallsTest, FirstCallOfANameWaitsUntilTheBusNamesItsUser) {
    EXPECT_EQ(receive(from(":1.1", connectCall())), kHandled);
    EXPECT_THAT(bus_.questions(), ElementsAre("GetConnectionUnixUser :1.1"));
    EXPECT_THAT(answers(), IsEmpty());
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("1"));
}

TEST_F(ClientCallsTest, BusIsAskedOnceForEachName) {
    know(":1.1");
    receive(from(":1.1", connectCall()));
    EXPECT_THAT(answers(), ElementsAre("1"));
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(ClientCallsTest, MessagesOfAClientAreHandledInOrder) {
    receive(from(":1.1", connectCall()));
    receive(from(":1.1", numbers("attach", {1, 2, 10})));
    receive(from(":1.1", numbers("attach", {7, 2, 10})));
    receive(from(":1.1", statusQuestion()));
    receive(from(":1.1", connectCall()));
    EXPECT_THAT(bus_.questions(), ElementsAre("GetConnectionUnixUser :1.1"));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("1", "1", kUnknownConnection, "v", "2"));
}

TEST_F(ClientCallsTest, CallsOfOtherClientsGoOnMeanwhile) {
    know(":1.3");
    receive(from(":1.1", connectCall()));
    receive(from(":1.3", connectCall()));
    EXPECT_THAT(answers(), ElementsAre("1"));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("2"));
}

TEST_F(ClientCallsTest, QuestionForTheStatusDoesNotNeedTheUser) {
    receive(from(":1.1", statusQuestion()));
    EXPECT_THAT(answers(), ElementsAre("v"));
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(ClientCallsTest, IdsMeanNothingToAnotherUser) {
    know(":1.1");
    know(":1.3");
    receive(from(":1.1", connectCall()));
    receive(from(":1.3", numbers("attach", {1, 2, 10})));
    receive(from(":1.2", numbers("attach", {1, 2, 10})));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("1", kUnknownConnection, "1"));
}

TEST_F(ClientCallsTest, IdsMeanNothingToAnotherUserWhoseFirstCallNamesThem) {
    know(":1.1");
    receive(from(":1.1", connectCall()));
    receive(from(":1.3", numbers("attach", {1, 2, 10})));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("1", kUnknownConnection));
}

TEST_F(ClientCallsTest, CancelOfAClientThatHasLeftIsIgnored) {
    know(":1.1");
    receive(from(":1.1", connectCall()));
    receive(from(":1.1", numbers("attach", {1, 2, 10})));
    BusMessage cancel = fake_bus::signal("cancel", ":1.2");
    const dbus_uint32_t id = 1;
    dbus_message_append_args(cancel.get(), DBUS_TYPE_UINT32, &id, DBUS_TYPE_UINT32, &id,
                             DBUS_TYPE_INVALID);
    bus_.left = {":1.2"};
    receive(cancel);
    bus_.answerQuestion();
    answers();
    receive(from(":1.1", numbers("getData", {1, 1})));
    EXPECT_THAT(answers(), IsEmpty()) << "the request is there: the call is held";
}

TEST_F(ClientCallsTest, MessagesOfAClientThatHasLeftAreDropped) {
    bus_.left = {":1.1"};
    receive(from(":1.1", connectCall()));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), IsEmpty());
    know(":1.2");
    receive(from(":1.2", connectCall()));
    EXPECT_THAT(answers(), ElementsAre("1")) << "no connection was opened";
}

TEST_F(ClientCallsTest, CallsAreRefusedWhenTheBusCannotSayWhoseTheyAre) {
    const BusMessage first = connectCall();
    receive(from(":1.1", connectCall()));
    receive(fake_bus::signal("cancel", ":1.1"));
    bus_.answerQuestion(
        BusMessage(dbus_message_new_error(first.get(), DBUS_ERROR_NO_MEMORY, "no memory")));
    EXPECT_THAT(answers(), ElementsAre(std::string(DBUS_ERROR_FAILED) +
                                       " The bus does not say whose call this is"));
}

TEST_F(ClientCallsTest, CallIsRefusedWhenTheBusCannotBeAsked) {
    for (const char* function :
         {"dbus_connection_send_with_reply", "dbus_pending_call_set_notify"}) {
        bus_.failing = function;
        EXPECT_EQ(receive(from(":1.1", connectCall())), kHandled);
        EXPECT_THAT(answers(), ElementsAre(std::string(DBUS_ERROR_NO_MEMORY) +
                                           " The bus cannot be asked whose call this is"));
    }
    bus_.failing.clear();
    EXPECT_THAT(bus_.questions(), IsEmpty());
    know(":1.1");
}

TEST_F(ClientCallsTest, MessageWithoutASenderIsLeftToTheLibrary) {
    BusMessage call(dbus_message_new_method_call(nullptr, "/", "com.kelvra.orvexd", "connect"));
    dbus_message_set_serial(call.get(), 1);
    EXPECT_EQ(receive(call), kNotHandled);
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(ClientCallsTest, RemembersTheNewest1024Names) {
    bus_.answersAtOnce = true;
    for (std::size_t number = 0; number < ClientCalls::kMostNames + 2; ++number) {
        receive(from((":2." + std::to_string(number)).c_str(), numbers("disconnect", {9})));
    }
    bus_.answersAtOnce = false;
    answers();
    receive(from(":2.2", numbers("disconnect", {9})));
    EXPECT_THAT(answers(), ElementsAre("done"));
    receive(from(":2.1", numbers("disconnect", {9})));
    receive(from(":2.0", numbers("disconnect", {9})));
    EXPECT_THAT(bus_.questions(),
                ElementsAre("GetConnectionUnixUser :2.1", "GetConnectionUnixUser :2.0"));
}

TEST_F(ClientCallsTest, QuestionsEndWithTheService) {
    receive(from(":1.1", connectCall()));
    mainLoop_.service.reset();
    EXPECT_THAT(bus_.asked, IsEmpty());
}

TEST_F(ClientCallsTest, QuitBehindOtherCallsWaitsAndEndsAllWaiting) {
    receive(from(":1.3", connectCall()));
    receive(from(":1.1", connectCall()));
    receive(from(":1.1", fake_bus::call("quit")));
    receive(from(":1.1", connectCall()));
    EXPECT_EQ(mainLoop_.quits, 0);
    bus_.answerQuestion(); // for :1.3
    bus_.answerQuestion();
    EXPECT_EQ(mainLoop_.quits, 1);
    EXPECT_THAT(answers(), ElementsAre("1", "2", "done"));
}

TEST_F(ClientCallsTest, QuitEndsTheQuestions) {
    receive(from(":1.1", connectCall()));
    receive(from(":1.2", fake_bus::call("quit")));
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(ClientCallsTest, DelayedQuitBehindAConnectIsNotCalledOffByIt) {
    receive(from(":1.1", connectCall()));
    receive(from(":1.1", fake_bus::call("quitDelayed")));
    bus_.answerQuestion();
    passTime(std::chrono::seconds(60));
    EXPECT_EQ(mainLoop_.quits, 1);
}

// -- copies --------------------------------------------------------------------------------------

TEST_F(ClientCallsTest, WaitingCallNeedsNoFurtherArguments) {
    BusMessage surplus = connectCall();
    const char* text = "more";
    dbus_message_append_args(surplus.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    const std::size_t held = MemoryBudget::process().held();
    receive(from(":1.1", connectCall()));
    const std::size_t cost = MemoryBudget::process().held() - held;
    receive(from(":1.1", std::move(surplus)));
    EXPECT_EQ(MemoryBudget::process().held() - held, 2 * cost);
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("1", "2"));
}

TEST_F(ClientCallsTest, WrongArgumentsAreFoundWhenTheCallIsHandled) {
    receive(from(":1.1", fake_bus::call("connect")));
    receive(from(":1.1", numbers("attach", {1, 2})));
    receive(from(":1.1", numbers("sendData", {1})));
    BusMessage texts = fake_bus::call("disconnect");
    const char* text = "1";
    dbus_message_append_args(texts.get(), DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    receive(from(":1.1", std::move(texts)));
    EXPECT_THAT(answers(), IsEmpty());
    bus_.answerQuestion();
    const std::string bad = "com.kelvra.orvexd.Error (2002) unspecifiedError";
    EXPECT_THAT(answers(),
                ElementsAre(bad, bad, bad, "com.kelvra.orvexd.Error (0) unspecifiedError"));
}

TEST_F(ClientCallsTest, WaitingQuestionForAnotherPropertyIsRefusedAsTheLibraryDoes) {
    BusMessage question = fake_bus::call("Get", "org.freedesktop.DBus.Properties");
    const char* word = "other";
    dbus_message_append_args(question.get(), DBUS_TYPE_STRING, &word, DBUS_TYPE_STRING, &word,
                             DBUS_TYPE_INVALID);
    receive(from(":1.1", connectCall()));
    receive(from(":1.1", std::move(question)));
    bus_.answerQuestion();
    EXPECT_THAT(answers(),
                ElementsAre("1", "org.freedesktop.DBus.Error.UnknownMethod Method \"Get\" with "
                                 "signature \"ss\" on interface "
                                 "\"org.freedesktop.DBus.Properties\" doesn't exist\n"));
}

TEST_F(ClientCallsTest, WaitingBytesArriveWhole) {
    receive(from(":1.1", connectCall()));
    const std::string bytes("a\0b", 3);
    const char* data = bytes.data();
    const dbus_bool_t last = TRUE;
    const dbus_uint32_t id = 1;
    receive(
        from(":1.1", call("sendData", DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data, 3, DBUS_TYPE_BOOLEAN,
                          &last, DBUS_TYPE_UINT32, &id, DBUS_TYPE_UINT32, &id)));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("1", "i")) << "unknown request, told as a number";
}

// -- how much waits ------------------------------------------------------------------------------

TEST_F(ClientCallsTest, OfOneClient1024MessagesWait) {
    for (std::size_t count = 0; count < ClientCalls::kMostMessages; ++count) {
        receive(from(":1.1", numbers("disconnect", {9})));
    }
    EXPECT_THAT(answers(), IsEmpty());
    receive(from(":1.1", numbers("disconnect", {9})));
    receive(fake_bus::signal("cancel", ":1.1"));
    EXPECT_THAT(answers(), ElementsAre(std::string(DBUS_ERROR_LIMITS_EXCEEDED) +
                                       " Client :1.1 has 1024 messages of 1048576 bytes waiting, "
                                       "the most that are allowed"));
    receive(from(":1.3", numbers("disconnect", {9})));
    bus_.answerQuestion();
    EXPECT_EQ(answers().size(), ClientCalls::kMostMessages);
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("done")) << "others wait in lines of their own";
}

TEST_F(ClientCallsTest, OfOneClient8MiBWaitAndOneMessageIsTakenWhole) {
    receive(from(":1.1", connectWith(ClientCalls::kMostBytes - 5000)));
    receive(from(":1.1", sendDataOf(100'000)));
    receive(from(":1.1", connectWith(0)));
    EXPECT_EQ(answers().size(), 1U);
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("1", "i"));
}

TEST_F(ClientCallsTest, WhatWaitsCountsInTheMemoryBudget) {
    const MemoryBudget& budget = MemoryBudget::process();
    const std::size_t before = budget.held();
    receive(from(":1.1", connectWith(50'000)));
    EXPECT_GT(budget.held(), before + 50'000);
    EXPECT_LT(budget.held(), before + 55'000);
    bus_.left = {":1.1"};
    bus_.answerQuestion();
    EXPECT_EQ(budget.held(), before);
}

TEST_F(ClientCallsTest, NothingWaitsWhenTheMemoryBudgetIsFull) {
    MemoryBudget& budget = MemoryBudget::process();
    const std::size_t size = budget.size();
    const Charge others(budget, 1000);
    budget.resize(budget.held());
    receive(from(":1.1", connectCall()));
    budget.resize(size);
    EXPECT_THAT(answers(),
                ElementsAre("org.freedesktop.DBus.Error.LimitsExceeded The daemon holds as "
                            "much for its clients as it may"));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), IsEmpty());
}

// -- what clients have left behind ---------------------------------------------------------------

class Refused : public ClientCallsTest {
protected:
    static constexpr const char* kFull =
        "org.freedesktop.DBus.Error.LimitsExceeded User 1000 has 2 connections, the most that are "
        "allowed";

    Refused() {
        mainLoop_.service.reset();
        mainLoop_.service = std::make_unique<DbusService>(
            mainLoop_, UserLimits{.connections = 2, .requests = 100, .argumentBytes = 1000});
        service().setUpBus();
        know(":1.1");
        know(":1.2");
        know(":1.3");
        receive(from(":1.1", connectCall()));
        receive(from(":1.1", connectCall()));
        EXPECT_THAT(answers(), ElementsAre("1", "2"));
    }
};

TEST_F(Refused, CallWaitsUntilItIsKnownWhoHasLeft) {
    EXPECT_EQ(receive(from(":1.2", connectCall())), kHandled);
    EXPECT_THAT(answers(), IsEmpty());
    EXPECT_THAT(bus_.questions(), ElementsAre("ListNames"));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre(kFull)) << "all are there";
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(Refused, FirstCallOfANameWaitsForItsUserAndThenForWhoHasLeft) {
    bus_.users[":1.4"] = 1000;
    bus_.left = {":1.1"};
    receive(from(":1.4", connectCall()));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), IsEmpty());
    EXPECT_THAT(bus_.questions(), ElementsAre("ListNames"));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("3"));
}

TEST_F(Refused, CallSucceedsWithWhatADepartedClientLeft) {
    bus_.left = {":1.1"};
    receive(from(":1.2", connectCall()));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("3"));
    receive(from(":1.2", numbers("attach", {1, 2, 10})));
    receive(from(":1.2", numbers("attach", {2, 2, 10})));
    EXPECT_THAT(answers(), ElementsAre(kUnknownConnection, "1")) << "only the oldest was needed";
}

TEST_F(Refused, CallHoldsUpTheLaterOnesOfItsClientOnly) {
    receive(from(":1.2", connectCall()));
    receive(from(":1.2", statusQuestion()));
    receive(from(":1.3", connectCall()));
    EXPECT_THAT(answers(), ElementsAre("3"));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre(kFull, "v"));
}

TEST_F(Refused, CallThatCameBehindTheQuestionWaitsForTheNext) {
    receive(from(":1.2", connectCall()));
    receive(from(":1.2", connectCall()));
    EXPECT_THAT(bus_.questions(), ElementsAre("ListNames"));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre(kFull));
    EXPECT_THAT(bus_.questions(), ElementsAre("ListNames"));
    bus_.left = {":1.1"};
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre("3"));
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(Refused, CallsShareTheNextQuestion) {
    receive(from(":1.2", connectCall()));
    receive(from(":1.2", connectCall()));
    receive(from(":1.1", connectCall()));
    receive(from(":1.1", connectCall()));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre(kFull));
    bus_.answerQuestion();
    EXPECT_THAT(answers(), ElementsAre(kFull, kFull, kFull));
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(Refused, ErrorOfTheBusGivesNothingBack) {
    bus_.left = {":1.1"};
    const BusMessage call = connectCall();
    receive(from(":1.2", connectCall()));
    bus_.answerQuestion(BusMessage(dbus_message_new_error(call.get(), DBUS_ERROR_NO_MEMORY, "no")));
    EXPECT_THAT(answers(), ElementsAre(kFull));
}

TEST_F(Refused, CallIsAnsweredWhenTheBusCannotBeAsked) {
    bus_.failing = "dbus_connection_send_with_reply";
    receive(from(":1.2", connectCall()));
    EXPECT_THAT(answers(), ElementsAre(kFull));
}

TEST_F(Refused, CallStillCallsADelayedQuitOff) {
    receive(from(":1.2", fake_bus::call("quitDelayed")));
    receive(from(":1.2", connectCall()));
    bus_.answerQuestion();
    passTime(std::chrono::seconds(60));
    EXPECT_EQ(mainLoop_.quits, 0);
}

TEST_F(Refused, ShortCallWaitsAlsoWhenTheMemoryBudgetIsFull) {
    MemoryBudget& budget = MemoryBudget::process();
    const std::size_t size = budget.size();
    budget.resize(budget.held());
    bus_.left = {":1.1"};
    receive(from(":1.3", numbers("attach", {1, 2, 10})));
    EXPECT_THAT(answers(), ElementsAre(kUnknownConnection));
    receive(from(":1.3", connectCall()));
    receive(from(":1.3", connectWith(10'000)));
    EXPECT_THAT(answers(),
                ElementsAre("org.freedesktop.DBus.Error.LimitsExceeded The daemon holds as "
                            "much for its clients as it may"));
    bus_.answerQuestion();
    budget.resize(size);
    EXPECT_THAT(answers(), ElementsAre("3")) << "the memory is everybody's";
}

TEST_F(Refused, MemoryIsGivenBackWhenTheWorkerAsksForIt) {
    MemoryBudget& budget = MemoryBudget::process();
    const std::size_t size = budget.size();
    bus_.left = {":1.1"};
    budget.resize(1);
    service().onMemoryShort();
    EXPECT_THAT(bus_.questions(), ElementsAre("ListNames"));
    bus_.answerQuestion();
    budget.resize(size);
    receive(from(":1.2", numbers("attach", {2, 2, 10})));
    EXPECT_THAT(answers(), ElementsAre(kUnknownConnection));
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(Refused, MemoryThatIsAskedForDuringAQuestionNeedsTheNext) {
    service().onMemoryShort();
    service().onMemoryShort();
    EXPECT_THAT(bus_.questions(), ElementsAre("ListNames"));
    bus_.answerQuestion();
    EXPECT_THAT(bus_.questions(), IsEmpty()) << "the first question is new enough for both";
    receive(from(":1.2", connectCall()));
    service().onMemoryShort();
    bus_.answerQuestion();
    EXPECT_THAT(bus_.questions(), ElementsAre("ListNames"));
}

// -- a client that is watched --------------------------------------------------------------------

class WatchedClient : public ClientCallsTest {
protected:
    static constexpr const char* kRule =
        "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',member='"
        "NameOwnerChanged',arg0=':1.1'";

    static BusMessage ownerChange(const char* name, const char* owner,
                                  const char* sender = "org.freedesktop.DBus") {
        BusMessage message(dbus_message_new_signal("/org/freedesktop/DBus", "org.freedesktop.DBus",
                                                   "NameOwnerChanged"));
        dbus_message_set_sender(message.get(), sender);
        const char* before = ":1.1";
        dbus_message_append_args(message.get(), DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &before,
                                 DBUS_TYPE_STRING, &owner, DBUS_TYPE_INVALID);
        return message;
    }
    bool isWatched() const {
        const auto count = [this](const std::string& call) {
            return std::count(bus_.calls.begin(), bus_.calls.end(), call);
        };
        return count(std::string("dbus_bus_add_match ") + kRule) >
               count(std::string("dbus_bus_remove_match ") + kRule);
    }
};

TEST_F(WatchedClient, IsWatchedByARuleAndAskedForOnce) {
    service().watchClient(":1.1");
    EXPECT_TRUE(isWatched());
    EXPECT_THAT(bus_.questions(), ElementsAre("NameHasOwner :1.1"));
    bus_.answerQuestion();
    EXPECT_TRUE(isWatched()) << "it is there";
    service().watchClient("");
    EXPECT_FALSE(isWatched());
}

TEST_F(WatchedClient, HasLeftBefore) {
    bus_.left = {":1.1"};
    service().watchClient(":1.1");
    bus_.answerQuestion();
    EXPECT_FALSE(isWatched()) << "the watch is over";
}

TEST_F(WatchedClient, LeavesWhenItsNameHasNoOwner) {
    service().watchClient(":1.1");
    EXPECT_EQ(receive(ownerChange(":1.1", "")), kNotHandled);
    EXPECT_FALSE(isWatched());
    EXPECT_THAT(bus_.questions(), IsEmpty());
}

TEST_F(WatchedClient, DoesNotLeaveByWhatOthersSay) {
    service().watchClient(":1.1");
    receive(ownerChange(":1.1", "", ":1.3"));
    receive(ownerChange(":1.3", ""));
    receive(ownerChange(":1.1", ":1.1"));
    EXPECT_TRUE(isWatched());
}

TEST_F(WatchedClient, IsNotWatchedAnyMoreWhenTheServiceEnds) {
    service().watchClient(":1.1");
    mainLoop_.service.reset();
    EXPECT_FALSE(isWatched());
    EXPECT_THAT(bus_.asked, IsEmpty());
}

} // namespace
} // namespace orvexd::test
