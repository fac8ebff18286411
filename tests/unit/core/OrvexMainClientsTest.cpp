// Whose connections and requests are whose, how many a user may have, and what clients that have
// left the bus leave behind.

#include "core/GatewayFixture.h"
#include "protocol/Codes.h"
#include "request/RequestData.h"
#include "support/MemoryBudget.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace orvexd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const Client kAnna{1000, ":1.10"};
const Client kAnnaAgain{1000, ":1.11"};
const Client kBert{1001, ":1.20"};
const Client kRoot{0, ":1.30"};

constexpr UserLimits kSmall{.connections = 2, .requests = 3, .argumentBytes = 100};

class Clients : public GatewayTest {
protected:
    explicit Clients(UserLimits limits = {}) {
        gateway_ = std::make_unique<OrvexMain>(service_, limits);
    }

    std::uint32_t openFor(const Client& client, const std::string& type = "position",
                          std::size_t argumentBytes = 0) {
        return gateway().openConnection(std::string(argumentBytes, 'e'), type, "", "", "", 10,
                                        client);
    }
    std::uint32_t attachFor(const Client& client, std::uint32_t connection) {
        return gateway().attachRequest(connection, kAny, 0, client);
    }
    int codeOfGetData(std::uint32_t connection, std::uint32_t request, const Client& client) {
        return thrownBy([&] { gateway().getData(connection, request, client); });
    }

    /// The sentence with which a limit refuses the operation; empty when it does not.
    template <typename Operation> static std::string refusalOf(Operation operation) {
        try {
            (void)operation();
        } catch (const LimitExceeded& refusal) {
            return refusal.sentence;
        }
        return "";
    }

    /// Whose openers are not among these clients.
    DepartedConnections departedBut(const std::set<std::string>& names) {
        return gateway().findDeparted(
            [&names](const std::string& name) { return names.contains(name); });
    }
};

// -- isolation -----------------------------------------------------------------------------------

class Isolation : public Clients {
protected:
    const std::uint32_t connection_ = openFor(kAnna);
    const std::uint32_t request_ = attachFor(kAnna, connection_);
};

TEST_F(Isolation, LetsTheSameUserUseIdsUnderEveryName) {
    EXPECT_EQ(codeOfGetData(connection_, request_, kAnnaAgain), 0);
    EXPECT_EQ(gateway().sendData("", false, connection_, request_, kAnnaAgain),
              failure::kNotAccepting);
    EXPECT_GT(attachFor(kAnnaAgain, connection_), request_);
}

TEST_F(Isolation, LetsRootUseTheIdsOfAll) {
    EXPECT_EQ(codeOfGetData(connection_, request_, kRoot), 0);
    EXPECT_EQ(gateway().sendData("", false, connection_, request_, kRoot), failure::kNotAccepting);
    EXPECT_GT(attachFor(kRoot, connection_), request_);
    gateway().cancelRequest(connection_, request_, kRoot);
    EXPECT_EQ(codeOfGetData(connection_, request_, kAnna), failure::kUnknownRequest);
    gateway().closeConnection(connection_, kRoot);
    EXPECT_EQ(thrownBy([&] { attachFor(kAnna, connection_); }), failure::kUnknownConnection);
}

TEST_F(Isolation, HidesConnectionsFromOtherUsers) {
    EXPECT_EQ(thrownBy([&] { attachFor(kBert, connection_); }), failure::kUnknownConnection);
    EXPECT_EQ(thrownBy([&] { gateway().prepareRequest(connection_, kAny, 0, kBert); }),
              failure::kUnknownConnection);
    EXPECT_EQ(gateway().sendData("", true, connection_, request_, kBert),
              failure::kUnknownConnection);
}

TEST_F(Isolation, HidesRequestsFromOtherUsers) {
    EXPECT_EQ(codeOfGetData(connection_, request_, kBert), failure::kUnknownRequest);
}

TEST_F(Isolation, DoesNotLetOtherUsersDisconnect) {
    gateway().closeConnection(connection_, kBert);
    EXPECT_EQ(codeOfGetData(connection_, request_, kAnna), 0);
    EXPECT_GT(attachFor(kAnna, connection_), request_);
}

TEST_F(Isolation, DoesNotLetOtherUsersCancel) {
    gateway().cancelRequest(connection_, request_, kBert);
    EXPECT_EQ(codeOfGetData(connection_, request_, kAnna), 0);
}

TEST_F(Isolation, HoldsForARequestWhoseConnectionIsClosed) {
    connectTo(2);
    holdExchange(answerScript(1));
    const std::uint32_t request = gateway().prepareRequest(connection_, kAny, 0, kAnna);
    reachExchange();
    gateway().closeConnection(connection_, kAnna);
    EXPECT_EQ(codeOfGetData(connection_, request, kBert), failure::kUnknownRequest);
    EXPECT_EQ(codeOfGetData(connection_, request, kAnna), 0) << "it lives until its exchange ends";
    proceed_.open();
    finishExchange();
}

// -- limits --------------------------------------------------------------------------------------

class Limits : public Clients {
protected:
    Limits() : Clients(kSmall) {}
};

TEST_F(Limits, AllowConnectionsUpToTheLimit) {
    openFor(kAnna);
    openFor(kAnnaAgain);
    EXPECT_EQ(refusalOf([&] { return openFor(kAnna); }),
              "User 1000 has 2 connections, the most that are allowed");
    EXPECT_EQ(openFor(kBert), 3U) << "no id was used up, and others have their own limit";
}

TEST_F(Limits, CountOpenConnectionsOnly) {
    openFor(kAnna);
    gateway().closeConnection(openFor(kAnna), kAnna);
    EXPECT_EQ(openFor(kAnna), 3U);
}

TEST_F(Limits, AllowRequestsUpToTheLimit) {
    const std::uint32_t connection = openFor(kAnna);
    for (int count = 0; count < 3; ++count) {
        attachFor(kAnna, connection);
    }
    EXPECT_EQ(refusalOf([&] { return attachFor(kAnna, connection); }),
              "User 1000 has 3 requests, the most that are allowed");
    EXPECT_EQ(refusalOf([&] { return gateway().prepareRequest(connection, kAny, 0, kAnna); }),
              "User 1000 has 3 requests, the most that are allowed");
    gateway().cancelRequest(connection, 1, kAnna);
    EXPECT_EQ(attachFor(kAnna, connection), 4U) << "no id was used up";
}

TEST_F(Limits, CountTheRequestsOfAClosedConnectionUntilTheyEnd) {
    connectTo(2);
    const std::uint32_t closed = openFor(kAnna);
    holdExchange(answerScript(3));
    for (int count = 0; count < 2; ++count) {
        attachFor(kAnna, closed);
    }
    gateway().prepareRequest(closed, kAny, 0, kAnna);
    reachExchange();
    gateway().closeConnection(closed, kAnna);
    const std::uint32_t connection = openFor(kAnna);
    EXPECT_NE(refusalOf([&] { return attachFor(kAnna, connection); }), "");
    proceed_.open();
    finishExchange();
    EXPECT_EQ(attachFor(kAnna, connection), 4U);
}

TEST_F(Limits, ComeAfterTheOtherChecksOfARequest) {
    connectTo(2, true); // a flagged connection
    const std::uint32_t connection = openFor(kAnna);
    for (int count = 0; count < 3; ++count) {
        gateway().attachRequest(connection, kNotFlagged, 0, kAnna);
    }
    EXPECT_EQ(thrownBy([&] { gateway().prepareRequest(connection, kNotFlagged, 0, kAnna); }),
              failure::kNoConnection);
    EXPECT_EQ(thrownBy([&] { attachFor(kAnna, connection + 1); }), failure::kUnknownConnection);
    EXPECT_NE(refusalOf([&] { return attachFor(kAnna, connection); }), "");
}

TEST_F(Limits, AllowArgumentsUpToTheLimit) {
    openFor(kAnna, "", 60);
    openFor(kBert, "", 100);
    EXPECT_EQ(
        refusalOf([&] { return openFor(kAnna, "", 41); }),
        "User 1000 has connections with 60 bytes of arguments, and 41 more are beyond the limit");
    openFor(kAnna, "", 40);
    gateway().closeConnection(1, kAnna);
    openFor(kAnna, "", 60);
}

TEST_F(Limits, GivingBackMayHelpUnlessTheArgumentsAloneAreBeyondTheLimit) {
    openFor(kAnna, "", 60);
    const auto mayFit = [&](std::size_t bytes) {
        try {
            openFor(kAnna, "", bytes);
        } catch (const LimitExceeded& refusal) {
            return refusal.mayFit;
        }
        ADD_FAILURE();
        return false;
    };
    EXPECT_TRUE(mayFit(100));
    EXPECT_FALSE(mayFit(101));
}

TEST_F(Limits, AreTenTimesAsHighForRoot) {
    const std::uint32_t connection = openFor(kRoot);
    for (int count = 1; count < 20; ++count) {
        openFor(kRoot);
    }
    EXPECT_EQ(refusalOf([&] { return openFor(kRoot); }),
              "User 0 has 20 connections, the most that are allowed");
    for (int count = 0; count < 30; ++count) {
        attachFor(kRoot, connection);
    }
    EXPECT_EQ(refusalOf([&] { return attachFor(kRoot, connection); }),
              "User 0 has 30 requests, the most that are allowed");
}

TEST_F(Limits, CountARequestForTheUserOfItsConnection) {
    const std::uint32_t connection = openFor(kAnna);
    for (int count = 0; count < 3; ++count) {
        attachFor(kRoot, connection);
    }
    EXPECT_EQ(refusalOf([&] { return attachFor(kRoot, connection); }),
              "User 1000 has 3 requests, the most that are allowed");
}

class Memory : public Clients {
protected:
    ~Memory() override { budget_.resize(size_); }
    Memory() = default;
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    MemoryBudget& budget_ = MemoryBudget::process();
    const std::size_t size_ = budget_.size();
};

TEST_F(Memory, CountsConnectionsAndRequestsAsLongAsTheyLive) {
    const std::size_t before = budget_.held();
    const std::uint32_t connection = openFor(kAnna, "", 1000);
    const std::size_t withConnection = budget_.held();
    EXPECT_GT(withConnection, before + 1000);
    attachFor(kAnna, connection);
    EXPECT_GE(budget_.held(), withConnection + RequestData::kCost);
    gateway().closeConnection(connection, kAnna);
    EXPECT_EQ(budget_.held(), before);
}

TEST_F(Memory, IsNotUnderstatedByTheCostOfARequest) {
    constexpr std::size_t kCount = 2000;
    const std::uint32_t connection = openFor(kAnna);
    const std::size_t before = mallinfo2().uordblks;
    const std::size_t heldBefore = budget_.held();
    for (std::size_t count = 0; count < kCount; ++count) {
        attachFor(kAnna, connection);
    }
    EXPECT_LE(mallinfo2().uordblks - before, budget_.held() - heldBefore);
}

TEST_F(Memory, RefusesWhenItIsFull) {
    const std::uint32_t connection = openFor(kAnna);
    budget_.resize(budget_.held() + 1);
    attachFor(kAnna, connection);
    const char* const sentence = "The daemon holds as much for its clients as it may";
    EXPECT_EQ(refusalOf([&] { return attachFor(kAnna, connection); }), sentence);
    EXPECT_EQ(refusalOf([&] { return openFor(kBert); }), sentence);
    gateway().cancelRequest(connection, 1, kAnna);
    EXPECT_EQ(openFor(kBert), 2U);
}

TEST_F(Memory, IsAskedForByThePostOfTheWorker) {
    gateway().postMemoryShort();
    EXPECT_THAT(service_.log, IsEmpty());
    drainMainContext();
    EXPECT_THAT(service_.log, ElementsAre("memory short"));
}

TEST_F(Memory, ComesFromTheOldestDepartedConnectionsOfAllUsers) {
    openFor(kAnna);
    openFor(kBert);
    openFor(kAnnaAgain);
    DepartedConnections departed = departedBut({kAnnaAgain.name});
    gateway().giveBackMemory(departed);
    EXPECT_EQ(departed.all.size(), 2U) << "there is room";
    budget_.resize(budget_.held()); // a sixteenth has to be free
    gateway().giveBackMemory(departed);
    EXPECT_THAT(departed.all, ElementsAre(2U)) << "the oldest was enough";
    budget_.resize(1);
    gateway().giveBackMemory(departed);
    budget_.resize(size_);
    EXPECT_EQ(thrownBy([&] { attachFor(kRoot, 2); }), failure::kUnknownConnection);
    EXPECT_EQ(thrownBy([&] { attachFor(kRoot, 3); }), 0) << "its client is there";
}

// -- clients that have left ----------------------------------------------------------------------

class Departed : public Clients {
protected:
    static LimitExceeded limitOf(const Client& client) {
        return {"", std::make_shared<const User>(User{client.uid})};
    }
    const LimitExceeded full_{"", nullptr};
};

TEST_F(Departed, GiveBackTheirOldestConnectionFirst) {
    openFor(kAnna);
    openFor(kAnna);
    DepartedConnections departed = departedBut({});
    EXPECT_TRUE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_EQ(thrownBy([&] { attachFor(kAnna, 1); }), failure::kUnknownConnection);
    EXPECT_EQ(thrownBy([&] { attachFor(kAnna, 2); }), 0);
}

TEST_F(Departed, GiveBackOnlyWhatCountsForTheUser) {
    openFor(kBert);
    openFor(kAnna);
    DepartedConnections departed = departedBut({});
    EXPECT_TRUE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_FALSE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_EQ(thrownBy([&] { attachFor(kBert, 1); }), 0);
}

TEST_F(Departed, GiveBackOfAllUsersForTheMemory) {
    openFor(kBert);
    openFor(kAnna);
    DepartedConnections departed = departedBut({});
    EXPECT_TRUE(gateway().giveBack(departed, full_));
    EXPECT_TRUE(gateway().giveBack(departed, full_));
    EXPECT_FALSE(gateway().giveBack(departed, full_));
}

TEST_F(Departed, AreNotThoseWhoAreOnTheBus) {
    openFor(kAnna);
    openFor(kAnnaAgain);
    DepartedConnections departed = departedBut({kAnna.name});
    EXPECT_TRUE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_FALSE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_EQ(thrownBy([&] { attachFor(kAnna, 1); }), 0);
}

TEST_F(Departed, RequestsAreForgottenAndTheirHeldCallsGivenUp) {
    openFor(kAnna);
    attachFor(kAnna, 1);
    DepartedConnections departed = departedBut({});
    EXPECT_TRUE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_EQ(codeOfGetData(1, 1, kRoot), failure::kUnknownRequest);
    expectEvent("drop 1:1");
}

TEST_F(Departed, ConnectionWithARequestInTheRunningExchangeStays) {
    connectTo(2);
    holdExchange(answerScript(1));
    openFor(kAnna);
    gateway().prepareRequest(1, kAny, 0, kAnna);
    reachExchange();
    DepartedConnections departed = departedBut({});
    EXPECT_FALSE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_EQ(codeOfGetData(1, 1, kAnna), 0);
    proceed_.open();
    finishExchange();
}

TEST_F(Departed, AnswersThatNobodyFetchedAreForgotten) {
    connectTo(2);
    answerExchange(1);
    openFor(kAnna);
    gateway().prepareRequest(1, kAny, 0, kAnna);
    finishExchange();
    DepartedConnections departed = departedBut({});
    EXPECT_TRUE(gateway().giveBack(departed, limitOf(kAnna)));
    EXPECT_EQ(codeOfGetData(1, 1, kAnna), failure::kUnknownRequest);
}

TEST_F(Departed, AnswersOfClientsThatAreThereStay) {
    connectTo(2);
    answerExchange(1);
    openFor(kAnna);
    gateway().prepareRequest(1, kAny, 0, kAnna);
    finishExchange();
    DepartedConnections departed = departedBut({kAnna.name});
    EXPECT_FALSE(gateway().giveBack(departed, full_));
    EXPECT_EQ(codeOfGetData(1, 1, kAnna), 0);
}

/// Requests that were fetched or cancelled after their exchange wait for the next one, which a
/// limit may keep from ever starting.
TEST_F(Departed, RequestsThatAreOverGoAlsoWhenTheirClientIsThere) {
    connectTo(2);
    answerExchange(1);
    openFor(kAnna);
    gateway().prepareRequest(1, kAny, 0, kAnna);
    finishExchange();
    gateway().cancelRequest(1, 1, kAnna);
    EXPECT_EQ(codeOfGetData(1, 1, kAnna), 0);
    departedBut({kAnna.name});
    EXPECT_EQ(codeOfGetData(1, 1, kAnna), failure::kUnknownRequest);
    expectEvent("drop 1:1");
}

// -- the wait for a client -----------------------------------------------------------------------

class Watch : public Clients {};

TEST_F(Watch, BeginsWithTheQuestionForAFingerprint) {
    const std::uint32_t connection = openFor(kAnna, "fingerprint");
    connectTo(2);
    answerExchange(1);
    gateway().prepareRequest(connection, kAny, 0, kAnna);
    finishExchange();
    EXPECT_THAT(service_.watched, ElementsAre(kAnna.name, "")) << "and ends with the exchange";
}

TEST_F(Watch, IsNotForTypesWithAShortWait) {
    const std::uint32_t connection = openFor(kAnna, "position");
    connectTo(2);
    answerExchange(1);
    gateway().prepareRequest(connection, kAny, 0, kAnna);
    finishExchange();
    EXPECT_THAT(service_.watched, IsEmpty());
}

TEST_F(Watch, EndsWhenTheExchangeFails) {
    const std::uint32_t connection = openFor(kAnna, "fingerprint");
    connectTo(2);
    fake_curl::addScript([this](fake_curl::Transfer& transfer) {
        (void)transfer.readAll(sent_);
        return CURLE_RECV_ERROR;
    });
    gateway().prepareRequest(connection, kAny, 0, kAnna);
    awaitOutcome();
    EXPECT_THAT(service_.watched, ElementsAre(kAnna.name, ""));
}

TEST_F(Watch, GoesToTheNextRequest) {
    const std::uint32_t anna = openFor(kAnna, "fingerprint");
    const std::uint32_t bert = openFor(kBert, "fingerprint");
    connectTo(2);
    attachFor(kAnna, anna);
    answerExchange(2);
    gateway().prepareRequest(bert, kAny, 0, kBert);
    finishExchange();
    EXPECT_THAT(service_.watched, ElementsAre(kBert.name, "", kAnna.name, ""));
}

TEST_F(Watch, LeavesTimeForDataOfTheUsersOtherNames) {
    const std::uint32_t connection = openFor(kAnna, "fingerprint");
    service_.onRequestData = nullptr;
    connectTo(2);
    answerExchange(1);
    gateway().prepareRequest(connection, kAny, 0, kAnna);
    EXPECT_TRUE(iterateUntil([this] { return !service_.watched.empty(); }));
    EXPECT_TRUE(spinUntil([] { return fake_threads::waits() == 1; }));
    gateway().onWatchedClientLeft();
    EXPECT_TRUE(spinUntil([] { return fake_threads::waits() == 2; })) << "with a new deadline";
    EXPECT_TRUE(gateway().isTransferRunning()) << "five seconds are left to the user's other names";
    EXPECT_EQ(gateway().sendData("data", true, connection, 1, kAnnaAgain), 0);
    finishExchange();
    EXPECT_NE(sent_.find("data"), std::string::npos);
}

TEST_F(Watch, MeansNobodyWhenItIsOver) {
    gateway().onWatchedClientLeft();
    openFor(kAnna, "fingerprint");
    EXPECT_FALSE(gateway().isTransferRunning());
}

} // namespace
} // namespace orvexd::test
