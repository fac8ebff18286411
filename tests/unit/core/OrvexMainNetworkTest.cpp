#include "core/GatewayFixture.h"

#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <trilba/network/ProxyQuery.h>

namespace orvexd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class OrvexMainNetworkTest : public GatewayTest {};

// -- status -------------------------------------------------------------------------------------

TEST_F(OrvexMainNetworkTest, ReportsNothingAtTheBeginning) {
    fake_platform::connect(1);
    gateway();
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainNetworkTest, AnnouncesAStatusThatAQuestionFindsChanged) {
    fake_platform::connect(1);
    EXPECT_EQ(gateway().connectionStatus(), 3U);
    EXPECT_EQ(gateway().connectionStatus(), 3U);
    EXPECT_THAT(service_.log, IsEmpty()); // never inside the handler
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("status 3"));
}

TEST_F(OrvexMainNetworkTest, DoesNotAnnounceTheStatusZeroItBeganWith) {
    EXPECT_EQ(gateway().connectionStatus(), 0U);
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty());
}

TEST_F(OrvexMainNetworkTest, AnnouncesEachChangeOnce) {
    gateway();
    connectTo(1);
    fake_platform::notifyObservers();
    connectTo(2);
    connectTo(2, true);
    loseConnection();
    fake_platform::notifyObservers();
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("status 3", "status 1", "status 5", "status 0"));
}

TEST_F(OrvexMainNetworkTest, DoesNotAnnounceAStatusThatAQuestionHasFoundAlready) {
    fake_platform::connect(1);
    (void)gateway().connectionStatus();
    fake_platform::notifyObservers();
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("status 3"));
}

TEST_F(OrvexMainNetworkTest, HasStatusZeroWithoutAPlatformManager) {
    fake_platform::change([](auto& state) { state.managerExists = false; });
    EXPECT_EQ(gateway().connectionStatus(), 0U);
    EXPECT_EQ(gateway().proxyForServer(), "");
    open();
    EXPECT_EQ(prepare(1), 1U);
    drainMainContext();
    EXPECT_TRUE(service_.has("error 2204 [Connection error] [1:1]"));
}

TEST_F(OrvexMainNetworkTest, ConnectsAfreshAfterAChangeOfStatus) {
    fake_platform::connect(1);
    open();
    answerExchange(1);
    prepare(1); // its question finds the status changed
    finishExchange();
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_FRESH_CONNECT), "1");
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_FRESH_CONNECT), "0");
}

TEST_F(OrvexMainNetworkTest, ConnectsAfreshAfterANotificationThatChangesNothing) {
    fake_platform::connect(1);
    open();
    answerExchange(1);
    prepare(1);
    finishExchange();
    fake_platform::notifyObservers();
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_FRESH_CONNECT), "1");
}

TEST_F(OrvexMainNetworkTest, ConnectsAfreshWhenItHearsThatANetworkIsThere) {
    fake_platform::connect(1);
    open();
    answerExchange(1);
    prepare(1);
    finishExchange();
    gateway().onNetworkAvailable();
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_FRESH_CONNECT), "1");
}

TEST_F(OrvexMainNetworkTest, TakesNotificationsOfAForeignThreadToTheMainLoop) {
    gateway();
    fake_platform::connect(1);
    std::thread platform(fake_platform::notifyObservers);
    platform.join();
    EXPECT_THAT(service_.log, IsEmpty());
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("status 3"));
}

TEST_F(OrvexMainNetworkTest, AsksThePlatformForTheProxyOfTheServer) {
    fake_platform::connect(1);
    fake_platform::change([](auto& state) {
        state.proxy = [](const std::string&, trilba::network::ProxyQuery& query) {
            std::strcpy(query.host, "proxy.example");
            return 0;
        };
    });
    open();
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_PROXY), "proxy.example:8080");
}

TEST_F(OrvexMainNetworkTest, LooksForTheNetworkWhenANewStatusMayHelpARequest) {
    fake_platform::connect(1);
    open();
    attach(1); // waits: kind 1 has not been reported
    answerExchange(1);
    gateway().onConnectionStatus(3, true);
    EXPECT_EQ(fake_threads::started(), 1);
    finishExchange();
}

TEST_F(OrvexMainNetworkTest, OnlyStoresAStatusWhenItMayNotLookForTheNetwork) {
    fake_platform::connect(1);
    open();
    attach(1);
    gateway().onConnectionStatus(3, false);
    EXPECT_EQ(fake_threads::started(), 0);
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("status 3"));
}

TEST_F(OrvexMainNetworkTest, DoesNotLookForTheNetworkForAStatusThatIsKnown) {
    fake_platform::connect(1);
    open();
    (void)gateway().connectionStatus();
    service_.permitted = false;
    EXPECT_EQ(thrownBy([this] { prepare(1); }), 2204); // waits for the permission
    service_.permitted = true;
    gateway().onConnectionStatus(3, true);
    EXPECT_EQ(fake_threads::started(), 0);
}

TEST_F(OrvexMainNetworkTest, DoesNotLookForTheNetworkForTheStatusZero) {
    fake_platform::connect(1);
    open();
    (void)gateway().connectionStatus();
    service_.permitted = false;
    EXPECT_EQ(thrownBy([this] { prepare(1); }), 2204);
    service_.permitted = true;
    gateway().onConnectionStatus(0, true);
    EXPECT_EQ(fake_threads::started(), 0);
}

// -- policies -----------------------------------------------------------------------------------

struct PolicyCase {
    const char* name;
    int kind; ///< of the active connection, 0 for none
    bool flagged;
    std::vector<std::uint32_t> allowed;
};

/// Otherwise GoogleTest prints the bytes of the case, padding included.
void PrintTo(const PolicyCase& policyCase,
             std::ostream* out) { // NOLINT(readability-identifier-naming)
    *out << policyCase.name;
}

class OrvexMainPolicyTest : public GatewayTest, public testing::WithParamInterface<PolicyCase> {};

TEST_P(OrvexMainPolicyTest, DecidesAboutTheConnection) {
    if (GetParam().kind != 0) {
        fake_platform::connect(GetParam().kind, GetParam().flagged);
    }
    std::vector<std::uint32_t> allowed;
    for (const std::uint32_t policy : {0U, 1U, 2U, 3U, 4U, 7U, 4294967295U}) {
        if (gateway().connectionAllowed(policy)) {
            allowed.push_back(policy);
        }
    }
    EXPECT_EQ(allowed, GetParam().allowed);
}

const std::vector<std::uint32_t> kEveryPolicy = {0, 1, 2, 3, 4, 7, 4294967295U};

INSTANTIATE_TEST_SUITE_P(, OrvexMainPolicyTest,
                         testing::Values(PolicyCase{"noConnection", 0, false, {2, 3}},
                                         PolicyCase{"kindOne", 1, false, kEveryPolicy},
                                         PolicyCase{"kindOneFlagged", 1, true, kEveryPolicy},
                                         PolicyCase{"kindTwo", 2, false, {2, 3}},
                                         PolicyCase{"kindTwoFlagged", 2, true, {3}},
                                         PolicyCase{"otherKind", 5, false, {3}},
                                         PolicyCase{"otherKindFlagged", 5, true, {3}}),
                         [](const auto& test) { return test.param.name; });

TEST_F(OrvexMainNetworkTest, AnnouncesAChangeThatThePolicyFinds) {
    fake_platform::connect(2, true);
    EXPECT_FALSE(gateway().connectionAllowed(2));
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("status 5"));
}

// -- a connection comes -------------------------------------------------------------------------

TEST_F(OrvexMainNetworkTest, StartsAnExchangeForAttachedRequestsWhenKindOneComes) {
    open();
    attach(1, kKindOneOnly);
    answerExchange(1);
    connectTo(1);
    EXPECT_EQ(fake_threads::started(), 1);
    finishExchange();
    EXPECT_THAT(service_.log, ElementsAre("status 3", "request data 1:1"));
}

TEST_F(OrvexMainNetworkTest, StartsNoExchangeForAttachedRequestsWhenAnotherKindComes) {
    open();
    attach(1, kAny);
    connectTo(2);
    connectTo(7);
    EXPECT_EQ(fake_threads::started(), 0);
    EXPECT_TRUE(exists(1, 1));
}

TEST_F(OrvexMainNetworkTest, StartsTheExchangeOfAWaitingPreparedRequestWithEachNotification) {
    fake_platform::connect(2);
    service_.permitted = false;
    open();
    (void)thrownBy([this] { prepare(1); });
    fake_platform::notifyObservers();
    EXPECT_EQ(fake_threads::started(), 0);
    service_.permitted = true;
    answerExchange(1);
    fake_platform::notifyObservers(); // the status is what it was
    EXPECT_EQ(fake_threads::started(), 1);
    finishExchange();
}

TEST_F(OrvexMainNetworkTest, StartsNoExchangeWithoutASendableRequest) {
    open();
    connectTo(1);
    EXPECT_EQ(fake_threads::started(), 0);
}

TEST_F(OrvexMainNetworkTest, StartsOneExchangeOnlyWhileItIsTold) {
    open();
    attach(1);
    holdExchange(answerScript(1));
    connectTo(1);
    reachExchange();
    attach(1);
    connectTo(2);
    connectTo(1);
    EXPECT_EQ(fake_threads::started(), 1);
    answerExchange(1);
    proceed_.open();
    finishExchange();
    finishExchange();
    EXPECT_EQ(fake_threads::started(), 2);
}

TEST_F(OrvexMainNetworkTest, HasNoSendableRequestWhenAllAreInAnExchange) {
    open();
    EXPECT_FALSE(gateway().hasSendableRequest());
    attach(1);
    EXPECT_FALSE(gateway().hasSendableRequest()); // attached, and no kind one
    holdExchange(answerScript(1));
    connectTo(1);
    EXPECT_FALSE(gateway().hasSendableRequest());
    attach(1);
    EXPECT_TRUE(gateway().hasSendableRequest());
    answerExchange(1);
    proceed_.open();
    finishExchange();
    finishExchange();
}

TEST_F(OrvexMainNetworkTest, TakesAPreparedRequestForSendableWhenItsPolicyAllowsTheConnection) {
    fake_platform::connect(1);
    service_.permitted = false;
    open();
    (void)thrownBy([this] { prepare(1, kKindOneOnly); });
    EXPECT_TRUE(gateway().hasSendableRequest());
    connectTo(2);
    EXPECT_FALSE(gateway().hasSendableRequest());
    (void)thrownBy([this] { prepare(1, kNotFlagged); });
    EXPECT_TRUE(gateway().hasSendableRequest());
}

TEST_F(OrvexMainNetworkTest, TakesAnAttachedRequestForSendableWhileKindOneIsReported) {
    fake_platform::connect(1);
    service_.permitted = false;
    open();
    attach(1, kKindOneOnly);
    EXPECT_FALSE(gateway().hasSendableRequest());
    (void)gateway().connectionStatus();
    EXPECT_TRUE(gateway().hasSendableRequest());
}

// -- flagged connections ------------------------------------------------------------------------

TEST_F(OrvexMainNetworkTest, UsesAFlaggedConnectionForAPreparedRequestThatAcceptsAny) {
    fake_platform::connect(2, true);
    open();
    answerExchange(1);
    EXPECT_EQ(prepare(1, kAny), 1U);
    EXPECT_EQ(fake_threads::started(), 1);
    finishExchange();
}

TEST_F(OrvexMainNetworkTest, TakesAttachedRequestsThatAcceptAnyAlongOverAFlaggedConnection) {
    fake_platform::connect(2, true);
    open();
    attach(1, kNotFlagged);
    attach(1, kAny);
    answerExchange(2);
    prepare(1, kAny);
    finishExchange();
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 1:3", "request data 1:2"));
    EXPECT_TRUE(exists(1, 1));
}

TEST_F(OrvexMainNetworkTest, QueuesNothingForAttachedRequestsWhileAnyConnectionIsFlagged) {
    open();
    attach(1, kNotFlagged);
    fake_platform::change([](auto& state) {
        state.connections = {{.name = "a", .kind = 1, .active = true, .flagged = false},
                             {.name = "b", .kind = 2, .active = false, .flagged = true}};
    });
    fake_platform::notifyObservers();
    EXPECT_TRUE(gateway().hasSendableRequest());
    EXPECT_TRUE(gateway().startExchange()); // though nothing was queued
    EXPECT_EQ(fake_threads::started(), 0);
    EXPECT_EQ(attach(1, kNotFlagged), 2U); // and attach is content with that
    EXPECT_EQ(fake_threads::started(), 0);
}

TEST_F(OrvexMainNetworkTest, QueuesAttachedRequestsThatAcceptAnyThoughAConnectionIsFlagged) {
    open();
    attach(1, kNotFlagged);
    attach(1, kAny);
    fake_platform::change([](auto& state) {
        state.connections = {{.name = "a", .kind = 1, .active = true, .flagged = true}};
    });
    answerExchange(2);
    fake_platform::notifyObservers();
    finishExchange();
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 1:1", "request data 1:2"));
}

TEST_F(OrvexMainNetworkTest, SweepsNothingWhenNobodyWantsTheFlaggedConnection) {
    fake_platform::connect(1);
    open();
    answerExchange(1);
    prepare(1);
    finishExchange();
    gateway().getData(1, 1);
    expectEvent("chunk 1:1 2303 [answer 1]");
    connectTo(1, true);
    EXPECT_TRUE(gateway().startExchange());
    drainMainContext();
    EXPECT_THAT(service_.only("drop"), IsEmpty());
    connectTo(1);
    EXPECT_TRUE(gateway().startExchange());
    drainMainContext();
    EXPECT_THAT(service_.only("drop"), ElementsAre("drop 1:1"));
}

// -- requests that the connection does not suit -------------------------------------------------

TEST_F(OrvexMainNetworkTest, DropsPreparedRequestsThatAreNotAllowedAndKeepsAttachedOnes) {
    fake_platform::connect(1);
    service_.permitted = false;
    for (int i = 0; i < 10; ++i) {
        open();
    }
    (void)thrownBy([this] { prepare(2, kKindOneOnly); });  // 2:1
    (void)thrownBy([this] { prepare(10, kKindOneOnly); }); // 10:2
    (void)thrownBy([this] { prepare(9, kNotFlagged); });   // 9:3
    (void)thrownBy([this] { attach(1, kKindOneOnly); });   // 1:4
    connectTo(2);
    service_.permitted = true;
    answerExchange(1);
    EXPECT_TRUE(gateway().startExchange());
    finishExchange();
    EXPECT_TRUE(service_.has("error 2204 [Current network connection not allowed] [10:2 2:1]"));
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 9:3"));
    EXPECT_FALSE(exists(2, 1));
    EXPECT_FALSE(exists(10, 2));
    EXPECT_TRUE(exists(1, 4));
}

// The calls that waited for their answers used to stay for ever.
TEST_F(OrvexMainNetworkTest, GivesUpTheHeldCallsOfRequestsThatAreNotAllowedBehindTheError) {
    fake_platform::connect(1);
    service_.permitted = false;
    open();
    (void)thrownBy([this] { prepare(1, kKindOneOnly); });
    (void)thrownBy([this] { prepare(1, kKindOneOnly); });
    connectTo(2);
    service_.permitted = true;
    drainMainContext();
    service_.log.clear();
    EXPECT_TRUE(gateway().startExchange());
    drainMainContext();
    EXPECT_THAT(service_.log,
                ElementsAre("error 2204 [Current network connection not allowed] [1:1 1:2]",
                            "drop 1:1", "drop 1:2"));
}

TEST_F(OrvexMainNetworkTest, ReportsRequestsThatAreNotAllowedBeforeTheWorkerStarts) {
    fake_platform::connect(1);
    service_.permitted = false;
    open();
    (void)thrownBy([this] { prepare(1, kKindOneOnly); });
    (void)thrownBy([this] { prepare(1, kNotFlagged); });
    connectTo(2);
    service_.permitted = true;
    drainMainContext();
    service_.log.clear();
    answerExchange(1);
    EXPECT_TRUE(gateway().startExchange());
    finishExchange();
    EXPECT_THAT(service_.log,
                ElementsAre("error 2204 [Current network connection not allowed] [1:1]", "drop 1:1",
                            "request data 1:2"));
}

TEST_F(OrvexMainNetworkTest, ReportsRequestsThatAreNotAllowedAlsoWhenNothingIsQueued) {
    fake_platform::connect(1);
    service_.permitted = false;
    open();
    (void)thrownBy([this] { prepare(1, kKindOneOnly); });
    connectTo(2);
    service_.permitted = true;
    EXPECT_TRUE(gateway().startExchange());
    drainMainContext();
    EXPECT_THAT(service_.only("error"),
                ElementsAre("error 2204 [Current network connection not allowed] [1:1]"));
    EXPECT_EQ(fake_threads::started(), 0);
}

// -- the connection goes ------------------------------------------------------------------------

TEST_F(OrvexMainNetworkTest, FailsWaitingPreparedRequestsWhenTheConnectionGoes) {
    fake_platform::connect(1);
    service_.permitted = false;
    for (int i = 0; i < 10; ++i) {
        open();
    }
    (void)thrownBy([this] { prepare(2); });  // 2:1
    (void)thrownBy([this] { prepare(10); }); // 10:2
    (void)thrownBy([this] { attach(1); });   // 1:3
    loseConnection();
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("status 3", "status 0", "drop 2:1", "drop 10:2",
                                          "error 2204 [Connection error] [10:2 2:1]"));
    EXPECT_FALSE(exists(2, 1));
    EXPECT_FALSE(exists(10, 2));
    EXPECT_TRUE(exists(1, 3)); // attached ones wait on
}

TEST_F(OrvexMainNetworkTest, SaysNothingWhenTheConnectionGoesAndNobodyIsConcerned) {
    fake_platform::connect(1);
    open();
    attach(1);
    loseConnection();
    drainMainContext();
    EXPECT_THAT(service_.log, IsEmpty()); // the status was never reported
}

TEST_F(OrvexMainNetworkTest, FailsTheCallersThatWaitForDataWhenTheConnectionGoes) {
    fake_platform::connect(1);
    open();
    open();
    attach(2);
    holdExchange(answerScript(2));
    prepare(1);
    reachExchange();
    gateway().getData(1, 2); // waits; 2:1 does not
    loseConnection();
    drainMainContext();
    EXPECT_THAT(service_.only("error"), ElementsAre("error 2204 [Connection error] [1:2]"));
    EXPECT_THAT(service_.only("drop"), IsEmpty());
    proceed_.open();
    finishExchange();
    EXPECT_THAT(service_.only("chunk"), IsEmpty()); // cancelled: no bytes
    EXPECT_THAT(service_.only("drop"), ElementsAre("drop 1:2"));
    gateway().getData(2, 1);
    expectEvent("chunk 2:1 2303 [answer 2]");
}

TEST_F(OrvexMainNetworkTest, FailsAWaitingCallerOnlyOnce) {
    fake_platform::connect(1);
    open();
    holdExchange(answerScript(1));
    prepare(1);
    reachExchange();
    gateway().getData(1, 1);
    loseConnection();
    fake_platform::notifyObservers();
    drainMainContext();
    EXPECT_THAT(service_.only("error"), ElementsAre("error 2204 [Connection error] [1:1]"));
    proceed_.open();
    finishExchange();
}

TEST_F(OrvexMainNetworkTest, FailsWaitingRequestsAlsoWhenANotificationChangesNothing) {
    service_.permitted = false;
    open();
    EXPECT_EQ(thrownBy([this] { prepare(1); }), 2204); // there never was a connection
    fake_platform::notifyObservers();
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("drop 1:1", "error 2204 [Connection error] [1:1]"));
}

TEST_F(OrvexMainNetworkTest, KnowsTheListThatThePlatformLastNotified) {
    open();
    fake_platform::connect(1); // without a notification
    EXPECT_EQ(gateway().connectionStatus(), 0U);
}

TEST_F(OrvexMainNetworkTest, TakesALostConnectionForAnExchangeThatBegan) {
    open();
    attach(1);
    EXPECT_TRUE(gateway().startExchange());
    EXPECT_EQ(fake_threads::started(), 0);
    EXPECT_TRUE(exists(1, 1));
}

TEST_F(OrvexMainNetworkTest, StartsNoExchangeWithoutPermission) {
    fake_platform::connect(1);
    service_.permitted = false;
    EXPECT_FALSE(gateway().startExchange());
    fake_platform::disconnect();
    fake_platform::notifyObservers();
    EXPECT_FALSE(gateway().startExchange());
}

} // namespace
} // namespace orvexd::test
