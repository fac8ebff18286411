#include "core/GatewayFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvexd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OrvexMainRequestsTest : public GatewayTest {};

// -- connections --------------------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, NumberConnectionsFromOne) {
    EXPECT_EQ(open(), 1U);
    EXPECT_EQ(open(), 2U);
}

TEST_F(OrvexMainRequestsTest, NeverGiveAConnectionIdAgain) {
    open();
    gateway().closeConnection(1);
    EXPECT_EQ(open(), 2U);
}

TEST_F(OrvexMainRequestsTest, IgnoreTheClosingOfAnUnknownConnection) {
    gateway().closeConnection(7);
    gateway().closeConnection(0);
    EXPECT_EQ(open(), 1U);
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainRequestsTest, CarryTheSixValuesOfTheirConnection) {
    fake_platform::connect(1);
    answerExchange(1);
    const auto connection = gateway().openConnection("Ele", "typ", "ver", "enc", "con", 3);
    const auto request = prepare(connection);
    gateway().getData(connection, request);
    expectEvent("chunk 1:1 2301 [ans]");
    EXPECT_THAT(sent_, testing::HasSubstr("<Ele type=\"typ\" version=\"ver\" oid=\"1\""));
    EXPECT_THAT(sent_,
                testing::HasSubstr("Content-Type: con\r\nContent-Transfer-Encoding: enc\r\n"));
}

// -- identity -----------------------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, CollectTheIdentityWhenTheCoreIsMade) {
    fake_platform::change([](auto& state) {
        state.imsi = "262";
        state.imei = "490";
        state.firmwareId = "fw";
    });
    gateway();
    EXPECT_EQ(HttpClient::getConfiguration().get("imsi"), "262");
    EXPECT_EQ(HttpClient::getConfiguration().get("imei"), "490");
    EXPECT_EQ(HttpClient::getConfiguration().get("fwId"), "fw");
    EXPECT_EQ(fake_platform::state().identityQueries, 1);
}

TEST_F(OrvexMainRequestsTest, CollectTheIdentityAgainAtEveryConnectWhileAnImsiOrImeiIsMissing) {
    gateway();
    open();
    EXPECT_EQ(fake_platform::state().identityQueries, 2);
    fake_platform::change([](auto& state) { state.imsi = "262"; });
    open();
    EXPECT_EQ(fake_platform::state().identityQueries, 3);
    EXPECT_EQ(HttpClient::getConfiguration().get("imsi"), "262");
    fake_platform::change([](auto& state) { state.imei = "490"; });
    open();
    EXPECT_EQ(fake_platform::state().identityQueries, 4);
    EXPECT_EQ(HttpClient::getConfiguration().get("imei"), "490");
    open();
    EXPECT_EQ(fake_platform::state().identityQueries, 4);
}

TEST_F(OrvexMainRequestsTest, NeedNoFirmwareIdForACompleteIdentity) {
    fake_platform::change([](auto& state) { state.imsi = state.imei = "1"; });
    open();
    EXPECT_EQ(fake_platform::state().identityQueries, 1);
}

TEST_F(OrvexMainRequestsTest, DropAnIdentityThatThePlatformNoLongerGives) {
    fake_platform::change([](auto& state) { state.imsi = "262"; });
    gateway();
    fake_platform::change([](auto& state) { state.imsi = ""; });
    open();
    EXPECT_EQ(HttpClient::getConfiguration().get("imsi", "absent"), "");
}

TEST_F(OrvexMainRequestsTest, MayConnectWhileTheWorkerReadsTheIdentity) {
    fake_platform::connect(1);
    const auto connection = open();
    for (int i = 0; i < 5; ++i) {
        answerExchange(1);
        prepare(connection);
        for (int more = 0; more < 200; ++more) {
            open(); // stores the identity anew each time
        }
        finishExchange();
    }
    EXPECT_THAT(service_.only("error"), IsEmpty());
}

// -- prepare and attach -------------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, AreNumberedFromOneOverAllConnections) {
    open();
    open();
    EXPECT_EQ(attach(1), 1U);
    EXPECT_EQ(attach(2), 2U);
    EXPECT_EQ(attach(1), 3U);
}

TEST_F(OrvexMainRequestsTest, NeverGiveARequestIdAgain) {
    open();
    attach(1);
    gateway().cancelRequest(1, 1);
    EXPECT_EQ(attach(1), 2U);
    gateway().closeConnection(1);
    open();
    EXPECT_EQ(attach(2), 3U);
}

TEST_F(OrvexMainRequestsTest, OfAnUnknownConnectionAreRefusedWith1001) {
    EXPECT_EQ(thrownBy([this] { prepare(1); }), 1001);
    EXPECT_EQ(thrownBy([this] { attach(1); }), 1001);
    open();
    EXPECT_EQ(thrownBy([this] { prepare(2); }), 1001);
    EXPECT_EQ(thrownBy([this] { attach(2); }), 1001);
}

TEST_F(OrvexMainRequestsTest, OfAnUnknownConnectionUseUpNoId) {
    (void)thrownBy([this] { attach(1); });
    (void)thrownBy([this] { prepare(1); });
    open();
    EXPECT_EQ(attach(1), 1U);
}

TEST_F(OrvexMainRequestsTest, LookForTheConnectionBeforeTheyLookForTheNetwork) {
    fake_platform::connect(2, true);
    EXPECT_EQ(thrownBy([this] { prepare(1, kNotFlagged); }), 1001);
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty()); // not even the status was asked for
}

TEST_F(OrvexMainRequestsTest, PreparedForAFlaggedConnectionAreRefusedBeforeTheyExist) {
    fake_platform::connect(2, true);
    open();
    EXPECT_EQ(thrownBy([this] { prepare(1, kNotFlagged); }), 2204);
    EXPECT_EQ(attach(1, kNotFlagged), 1U); // the id was not used up
    EXPECT_TRUE(exists(1, 1));
    drainMainContext();
    EXPECT_THAT(service_.only("error"), IsEmpty());
}

TEST_F(OrvexMainRequestsTest, AttachedWaitForAnExchange) {
    fake_platform::connect(2);
    open();
    attach(1);
    drainMainContext();
    EXPECT_EQ(fake_threads::started(), 0);
    EXPECT_TRUE(exists(1, 1));
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainRequestsTest, AttachedStartAnExchangeOnlyOnceKindOneHasBeenReported) {
    fake_platform::connect(1);
    open();
    attach(1);
    EXPECT_EQ(fake_threads::started(), 0); // nobody has asked for the status yet
    EXPECT_EQ(gateway().connectionStatus(), 3U);
    answerExchange(2);
    attach(1);
    EXPECT_EQ(fake_threads::started(), 1);
    finishExchange();
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 1:1", "request data 1:2"));
}

TEST_F(OrvexMainRequestsTest, PreparedStartAnExchange) {
    fake_platform::connect(2);
    open();
    answerExchange(1);
    EXPECT_EQ(prepare(1), 1U);
    EXPECT_EQ(fake_threads::started(), 1);
    EXPECT_EQ(fake_threads::lastName(), "HttpClient");
    EXPECT_TRUE(gateway().isTransferRunning());
    finishExchange();
    EXPECT_FALSE(gateway().isTransferRunning());
}

TEST_F(OrvexMainRequestsTest, PreparedWhilePositioningIsWithdrawnAreRefusedAndStay) {
    fake_platform::connect(1);
    service_.permitted = false;
    open();
    EXPECT_EQ(thrownBy([this] { prepare(1); }), 2204);
    EXPECT_TRUE(exists(1, 1));
    EXPECT_EQ(thrownBy([this] { attach(1); }), 2204); // the status is reported by now
    EXPECT_TRUE(exists(1, 2));
    EXPECT_EQ(fake_threads::started(), 0);
}

TEST_F(OrvexMainRequestsTest, ThatWaitedForThePermissionGoWithTheNextExchange) {
    fake_platform::connect(1);
    service_.permitted = false;
    open();
    (void)thrownBy([this] { prepare(1); });
    service_.permitted = true;
    answerExchange(2);
    EXPECT_EQ(prepare(1), 2U);
    finishExchange();
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 1:1", "request data 1:2"));
}

TEST_F(OrvexMainRequestsTest, WithoutANetworkGetAnIdAndAnErrorSignal) {
    open();
    EXPECT_EQ(prepare(1, kNotFlagged), 1U);
    EXPECT_EQ(prepare(1, kAny), 2U);
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("drop 1:1", "error 2204 [Connection error] [1:1]",
                                          "drop 1:2", "error 2204 [Connection error] [1:2]"));
    EXPECT_FALSE(exists(1, 1));
    EXPECT_FALSE(exists(1, 2));
}

TEST_F(OrvexMainRequestsTest, WithoutANetworkAreRefusedWhenTheyNeedKindOne) {
    open();
    EXPECT_EQ(thrownBy([this] { prepare(1, 0); }), 2204);
    EXPECT_EQ(thrownBy([this] { prepare(1, 1); }), 2204);
    EXPECT_EQ(thrownBy([this] { prepare(1, 4); }), 2204);
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainRequestsTest, AreRefusedWhenNoWorkerCanBeStartedAndStay) {
    fake_platform::connect(1);
    open();
    fake_threads::failStart(true);
    EXPECT_EQ(thrownBy([this] { prepare(1); }), 2204);
    EXPECT_EQ(thrownBy([this] { attach(1); }), 2204);
    EXPECT_TRUE(exists(1, 1));
    EXPECT_TRUE(exists(1, 2));
    EXPECT_FALSE(gateway().isTransferRunning());
    fake_threads::failStart(false);
    answerExchange(3);
    prepare(1);
    finishExchange();
    EXPECT_THAT(service_.only("request data"),
                ElementsAre("request data 1:1", "request data 1:3", "request data 1:2"));
}

TEST_F(OrvexMainRequestsTest, ThatFoundNoWorkerCanBeCancelledAtOnce) {
    fake_platform::connect(1);
    open();
    fake_threads::failStart(true);
    (void)thrownBy([this] { prepare(1); });
    gateway().cancelRequest(1, 1);
    EXPECT_FALSE(exists(1, 1)); // its state is that of the beginning
}

TEST_F(OrvexMainRequestsTest, DuringAnExchangeWaitForTheNextOne) {
    fake_platform::connect(1);
    open();
    holdExchange(answerScript(1));
    prepare(1);
    reachExchange();
    EXPECT_EQ(prepare(1), 2U);
    EXPECT_EQ(attach(1), 3U);
    EXPECT_EQ(fake_threads::started(), 1);
    answerExchange(2);
    proceed_.open();
    expectEvent("request data 1:3");
    EXPECT_EQ(fake_threads::started(), 2);
    finishExchange();
    EXPECT_THAT(service_.only("request data"),
                ElementsAre("request data 1:1", "request data 1:2", "request data 1:3"));
}

// -- sendData -----------------------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, TakeDataOnlyWhenItIsAskedFor) {
    open();
    attach(1);
    EXPECT_EQ(gateway().sendData("x", true, 1, 1), 57);
}

TEST_F(OrvexMainRequestsTest, ReportUnknownDataInOrderConnectionThenRequestThenAcceptance) {
    EXPECT_EQ(gateway().sendData("x", true, 1, 1), 1001);
    open();
    EXPECT_EQ(gateway().sendData("x", true, 1, 1), 41);
    attach(1);
    EXPECT_EQ(gateway().sendData("x", true, 1, 1), 57);
    open();
    EXPECT_EQ(gateway().sendData("x", true, 2, 1), 41); // another connection's request
}

TEST_F(OrvexMainRequestsTest, TakeDataWhileTheirPartIsCurrent) {
    fake_platform::connect(1);
    HttpClient::setParameter("orvexd/wait_timeout/position", "30000");
    open();
    service_.onRequestData = nullptr;
    answerExchange(2);
    (void)prepare(1);
    holdExchange(answerScript(0));
    expectEvent("request data 1:1");
    EXPECT_EQ(gateway().sendData("first ", false, 1, 1), 0);
    EXPECT_EQ(gateway().sendData("", false, 1, 1), 0);
    EXPECT_EQ(gateway().sendData("second", true, 1, 1), 0);
    finishExchange();
    EXPECT_EQ(gateway().sendData("third", true, 1, 1), 57);
    EXPECT_THAT(sent_, testing::HasSubstr("Content-Id: part1\r\n\r\nfirst second\r\n--"));
}

TEST_F(OrvexMainRequestsTest, TakeDataForTheCurrentPartOnly) {
    fake_platform::connect(2);
    HttpClient::setParameter("orvexd/wait_timeout/position", "30000");
    open();
    attach(1);
    service_.onRequestData = nullptr;
    answerExchange(2);
    prepare(1);
    expectEvent("request data 1:2"); // prepared ones first
    EXPECT_EQ(gateway().sendData("early", true, 1, 1), 57);
    EXPECT_EQ(gateway().sendData("p", true, 1, 2), 0);
    expectEvent("request data 1:1");
    EXPECT_EQ(gateway().sendData("late", true, 1, 2), 57);
    EXPECT_EQ(gateway().sendData("a", true, 1, 1), 0);
    finishExchange();
}

TEST_F(OrvexMainRequestsTest, TakeBackTheEndMarkWithALaterPiece) {
    fake_platform::connect(1);
    HttpClient::setParameter("orvexd/wait_timeout/position", "30000");
    open();
    service_.onRequestData = nullptr;
    // The part is not looked at between the two pieces.
    Gate sent;
    fake_curl::addScript([&](fake_curl::Transfer& transfer) {
        sent_ = transfer.read().bytes;
        EXPECT_TRUE(sent.await());
        EXPECT_TRUE(transfer.readAll(sent_));
        answer(transfer, 1);
        return CURLE_OK;
    });
    prepare(1);
    expectEvent("request data 1:1");
    EXPECT_EQ(gateway().sendData("one ", true, 1, 1), 0);
    EXPECT_EQ(gateway().sendData("two ", false, 1, 1), 0);
    sent.open();
    EXPECT_EQ(gateway().sendData("three", true, 1, 1), 0);
    finishExchange();
    EXPECT_THAT(sent_, testing::HasSubstr("\r\n\r\none two three\r\n--"));
}

TEST_F(OrvexMainRequestsTest, OfAClosedConnectionTakeNoData) {
    fake_platform::connect(1);
    HttpClient::setParameter("orvexd/wait_timeout/position", "100");
    open();
    service_.onRequestData = nullptr;
    answerExchange(1);
    prepare(1);
    expectEvent("request data 1:1");
    gateway().closeConnection(1);
    EXPECT_EQ(gateway().sendData("x", true, 1, 1), 1001);
    gateway().cancelRequest(1, 1); // still finds it
    EXPECT_TRUE(exists(1, 1));
    finishExchange();
    EXPECT_FALSE(exists(1, 1));
}

// -- getData ------------------------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, ThatAreUnknownGiveNoData) {
    EXPECT_EQ(thrownBy([this] { gateway().getData(1, 1); }), 41);
    open();
    EXPECT_EQ(thrownBy([this] { gateway().getData(1, 1); }), 41);
    attach(1);
    EXPECT_EQ(thrownBy([this] { gateway().getData(1, 1); }), 0);
    EXPECT_EQ(thrownBy([this] { gateway().getData(2, 1); }), 41);
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainRequestsTest, GiveOneChunkForEachQuestion) {
    fake_platform::connect(1);
    open(4);
    answerExchange(1);
    prepare(1);
    gateway().getData(1, 1);
    expectEvent("chunk 1:1 2301 [answ]");
    finishExchange();
    EXPECT_EQ(service_.only("chunk").size(), 1U);
    gateway().getData(1, 1);
    drainMainContext();
    EXPECT_THAT(service_.only("chunk"),
                ElementsAre("chunk 1:1 2301 [answ]", "chunk 1:1 2303 [er 1]"));
}

TEST_F(OrvexMainRequestsTest, KeepTheOrderOfChunksThatArePostedInQuickSuccession) {
    fake_platform::connect(1);
    open(1);
    answerExchange(1);
    service_.onChunk = nullptr;
    prepare(1);
    awaitOutcome();
    finishExchange();
    for (int i = 0; i < 8; ++i) {
        gateway().getData(1, 1); // all in one handler
    }
    EXPECT_THAT(service_.only("chunk"), IsEmpty()); // none inside it
    drainMainContext();
    EXPECT_THAT(service_.only("chunk"),
                ElementsAre("chunk 1:1 2301 [a]", "chunk 1:1 2301 [n]", "chunk 1:1 2301 [s]",
                            "chunk 1:1 2301 [w]", "chunk 1:1 2301 [e]", "chunk 1:1 2301 [r]",
                            "chunk 1:1 2301 [ ]", "chunk 1:1 2303 [1]"));
}

TEST_F(OrvexMainRequestsTest, DeliveredInTheirExchangeAreForgottenAtItsEnd) {
    fake_platform::connect(1);
    open();
    answerExchange(1);
    prepare(1);
    gateway().getData(1, 1);
    expectEvent("drop 1:1");
    EXPECT_THAT(service_.log, ElementsAre("status 3", "request data 1:1",
                                          "chunk 1:1 2303 [answer 1]", "drop 1:1"));
    EXPECT_EQ(thrownBy([this] { gateway().getData(1, 1); }), 41);
}

TEST_F(OrvexMainRequestsTest, DeliveredAfterTheirExchangeStayUntilTheNextSweep) {
    fake_platform::connect(1);
    open();
    answerExchange(1);
    prepare(1);
    finishExchange();
    gateway().getData(1, 1);
    expectEvent("chunk 1:1 2303 [answer 1]");
    EXPECT_TRUE(exists(1, 1)); // neither answered nor refused
    drainMainContext();
    EXPECT_EQ(service_.only("chunk").size(), 1U);
    EXPECT_THAT(service_.only("drop"), IsEmpty());
    answerExchange(1);
    prepare(1);
    EXPECT_EQ(thrownBy([this] { gateway().getData(1, 1); }), 41);
    expectEvent("drop 1:1");
    finishExchange();
}

// -- cancel -------------------------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, ThatAreUnknownCannotBeCancelled) {
    gateway().cancelRequest(1, 1);
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainRequestsTest, ThatWaitGoAtOnceWhenCancelled) {
    open();
    attach(1);
    gateway().getData(1, 1);
    gateway().cancelRequest(1, 1);
    EXPECT_FALSE(exists(1, 1));
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("drop 1:1"));
}

TEST_F(OrvexMainRequestsTest, ThatAreTransferredGoWithTheExchangesEndWhenCancelled) {
    fake_platform::connect(1);
    open();
    holdExchange(answerScript(1));
    prepare(1);
    reachExchange();
    gateway().cancelRequest(1, 1);
    EXPECT_TRUE(exists(1, 1));
    drainMainContext();
    EXPECT_THAT(service_.only("drop"), IsEmpty());
    proceed_.open();
    expectEvent("drop 1:1");
    EXPECT_FALSE(exists(1, 1));
    EXPECT_THAT(service_.only("chunk"), IsEmpty());
    EXPECT_THAT(service_.only("error"), IsEmpty());
}

TEST_F(OrvexMainRequestsTest, ThatAreAnsweredStayWhenCancelledUntilAnExchangeEnds) {
    fake_platform::connect(1);
    open();
    answerExchange(1);
    prepare(1);
    finishExchange();
    gateway().cancelRequest(1, 1);
    EXPECT_TRUE(exists(1, 1));
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_FALSE(exists(1, 1));
    EXPECT_TRUE(service_.has("drop 1:1"));
    EXPECT_TRUE(exists(1, 2));
}

// -- closing a connection -----------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, OfAClosedConnectionGoInTheOrderOfTheirIds) {
    open();
    for (int i = 0; i < 11; ++i) {
        attach(1);
    }
    gateway().closeConnection(1);
    drainMainContext();
    EXPECT_THAT(service_.log,
                ElementsAre("drop 1:1", "drop 1:2", "drop 1:3", "drop 1:4", "drop 1:5", "drop 1:6",
                            "drop 1:7", "drop 1:8", "drop 1:9", "drop 1:10", "drop 1:11"));
}

TEST_F(OrvexMainRequestsTest, OfConnectionElevenSurviveTheClosingOfConnectionOne) {
    for (int i = 0; i < 11; ++i) {
        open();
    }
    attach(1);
    attach(11);
    attach(10);
    gateway().closeConnection(1);
    EXPECT_FALSE(exists(1, 1));
    EXPECT_TRUE(exists(11, 2));
    EXPECT_TRUE(exists(10, 3));
    EXPECT_EQ(attach(11), 4U);
    EXPECT_EQ(thrownBy([this] { attach(1); }), 1001);
}

TEST_F(OrvexMainRequestsTest, OfAClosedConnectionLiveCancelledUntilTheirExchangeEnds) {
    fake_platform::connect(1);
    open();
    open();
    holdExchange(answerScript(1));
    prepare(1);
    reachExchange();
    attach(1);
    attach(2);
    gateway().closeConnection(1);
    EXPECT_TRUE(exists(1, 1));
    EXPECT_FALSE(exists(1, 2));
    EXPECT_TRUE(exists(2, 3));
    answerExchange(1);
    proceed_.open();
    expectEvent("drop 1:1");
    expectEvent("request data 2:3");
    finishExchange();
    EXPECT_THAT(service_.only("chunk 1:"), IsEmpty());
}

// -- open duration ------------------------------------------------------------------------------

TEST_F(OrvexMainRequestsTest, LeaveTheDefaultOpenDurationOfTen) {
    EXPECT_EQ(gateway().connectionOpenDuration(), 10U);
    open();
    attach(1, kAny, 0);
    EXPECT_EQ(gateway().connectionOpenDuration(), 10U);
}

TEST_F(OrvexMainRequestsTest, RaiseTheOpenDurationBelowTheMaximumOnly) {
    open();
    attach(1, kAny, 60);
    EXPECT_EQ(gateway().connectionOpenDuration(), 10U);
    attach(1, kAny, 61);
    EXPECT_EQ(gateway().connectionOpenDuration(), 10U);
    attach(1, kAny, 59);
    EXPECT_EQ(gateway().connectionOpenDuration(), 59U);
    attach(1, kAny, 4294967295U);
    EXPECT_EQ(gateway().connectionOpenDuration(), 59U);
}

TEST_F(OrvexMainRequestsTest, MayAskForLessThanTheDefaultOpenDuration) {
    open();
    attach(1, kAny, 5);
    EXPECT_EQ(gateway().connectionOpenDuration(), 5U);
}

TEST_F(OrvexMainRequestsTest, NeverLowerTheOpenDuration) {
    open();
    attach(1, kAny, 30);
    attach(1, kAny, 20);
    gateway().closeConnection(1);
    EXPECT_EQ(gateway().connectionOpenDuration(), 30U);
}

TEST_F(OrvexMainRequestsTest, RaiseTheOpenDurationWhenPreparedToo) {
    open();
    prepare(1, kAny, 60);
    EXPECT_EQ(gateway().connectionOpenDuration(), 10U);
    prepare(1, kAny, 42);
    EXPECT_EQ(gateway().connectionOpenDuration(), 42U);
}

TEST_F(OrvexMainRequestsTest, ThatAreRefusedLeaveTheOpenDuration) {
    open();
    (void)thrownBy([this] { prepare(1, kKindOneOnly, 42); });
    (void)thrownBy([this] { attach(9, kAny, 42); });
    EXPECT_EQ(gateway().connectionOpenDuration(), 10U);
}

TEST_F(OrvexMainRequestsTest, ReadTheOpenDurationsFromTheCoresOwnMap) {
    OrvexMain::setParameter("network/default_connection_open_duration", "12");
    OrvexMain::setParameter("network/max_connection_open_duration", "100");
    EXPECT_EQ(gateway().connectionOpenDuration(), 12U);
    open();
    attach(1, kAny, 100);
    EXPECT_EQ(gateway().connectionOpenDuration(), 12U);
    attach(1, kAny, 99);
    EXPECT_EQ(gateway().connectionOpenDuration(), 99U);
}

TEST_F(OrvexMainRequestsTest, HaveTheOpenDurationsThatTheFileStoreHeldWhenTheCoreWasMade) {
    ConfHandler::setParameter("network/default_connection_open_duration", "13");
    ConfHandler::setParameter("network/max_connection_open_duration", "");
    ConfHandler::setParameter("orvexd/connect_timeout", "14");
    gateway();
    ConfHandler::setParameter("network/default_connection_open_duration", "99");
    EXPECT_EQ(gateway().connectionOpenDuration(), 13U);
    EXPECT_EQ(OrvexMain::getConfiguration().get("network/max_connection_open_duration", "absent"),
              "absent");
    EXPECT_EQ(OrvexMain::getConfiguration().get("orvexd/connect_timeout", "absent"), "absent");
    EXPECT_EQ(HttpClient::getConfiguration().get("orvexd/connect_timeout"), "14");
}

TEST_F(OrvexMainRequestsTest, IgnoreAnEmptyParameterThatIsOnlySetWhenThereIsOne) {
    OrvexMain::setParameterIfSet("network/default_connection_open_duration", "8");
    OrvexMain::setParameterIfSet("network/default_connection_open_duration", "");
    EXPECT_EQ(gateway().connectionOpenDuration(), 8U);
}

} // namespace
} // namespace orvexd::test
