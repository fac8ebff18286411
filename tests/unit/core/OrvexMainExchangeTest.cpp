#include "core/GatewayFixture.h"
#include "fakes/FailingMemory.h"
#include "request/OutgoingPart.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>

namespace orvexd::test {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class OrvexMainExchangeTest : public GatewayTest {
protected:
    OrvexMainExchangeTest() {
        fake_platform::connect(1);
        (void)open();
    }

    static std::string failed(int code, const std::string& text, const std::string& keys) {
        return "error " + std::to_string(code) + " [" + text + "] [" + keys + "]";
    }
};

// -- the road of a request ----------------------------------------------------------------------

TEST_F(OrvexMainExchangeTest, CarriesARequestFromPrepareToItsLastChunk) {
    answerExchange(1);
    prepare(1);
    gateway().getData(1, 1);
    expectEvent("drop 1:1");
    EXPECT_THAT(service_.log, ElementsAre("status 3", "request data 1:1",
                                          "chunk 1:1 2303 [answer 1]", "drop 1:1"));
}

TEST_F(OrvexMainExchangeTest, CarriesManyRequestsPreparedOnesFirst) {
    for (int i = 0; i < 3; ++i) {
        attach(1);
    }
    answerExchange(4);
    prepare(1);
    finishExchange();
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 1:4", "request data 1:1",
                                                           "request data 1:2", "request data 1:3"));
    gateway().getData(1, 4);
    gateway().getData(1, 1);
    drainMainContext();
    EXPECT_THAT(service_.only("chunk"),
                ElementsAre("chunk 1:4 2303 [answer 1]", "chunk 1:1 2303 [answer 2]"));
}

TEST_F(OrvexMainExchangeTest, RequestsWhoseElementsAreVeryLongTravelInSeveralMessages) {
    const std::string longType(std::size_t{5} * 1024 * 1024, 't');
    const std::uint32_t connectionId = open(1024, longType);
    for (int i = 0; i < 3; ++i) {
        attach(connectionId);
    }
    answerExchange(3);
    answerExchange(1);
    prepare(1);
    awaitOutcome(); // 50 ms before the next exchange begins
    EXPECT_THAT(service_.only("request data"),
                ElementsAre("request data 1:4", "request data 2:1", "request data 2:2"));
    finishExchange();
    finishExchange();
    EXPECT_THAT(service_.only("request data"), SizeIs(4));
}

TEST_F(OrvexMainExchangeTest, OldestRequestGoesFirstWhenAMessageHasNoRoomForAll) {
    const std::string longType(std::size_t{9} * 1024 * 1024, 't');
    const std::uint32_t connectionId = open(1024, longType);
    attach(connectionId, kNotFlagged);
    attach(connectionId, kAny);
    answerExchange(1);
    answerExchange(1);
    gateway().startExchange();
    awaitOutcome();
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 2:1"));
    finishExchange();
    finishExchange();
    EXPECT_THAT(service_.only("request data"), ElementsAre("request data 2:1", "request data 2:2"));
}

TEST_F(OrvexMainExchangeTest, TellsWhenAnUploadIsCrowdedAndWhenItHasRoomAgain) {
    service_.onRequestData = [this](std::uint32_t connectionId, std::uint32_t requestId) {
        const std::string data(OutgoingPart::kPromptBytes + 1, 'x');
        EXPECT_EQ(gateway().sendData("x", false, connectionId, requestId), 0);
        EXPECT_FALSE(gateway().isUploadCrowded(connectionId, requestId));
        EXPECT_EQ(gateway().sendData(data, true, connectionId, requestId), 0);
        EXPECT_TRUE(gateway().isUploadCrowded(connectionId, requestId));
        arrived_.open();
    };
    fake_curl::addScript([this, script = answerScript(1)](fake_curl::Transfer& transfer) {
        (void)transfer.read(); // the first part of the message; the request is asked for its data
        EXPECT_TRUE(arrived_.await());
        return script(transfer);
    });
    prepare(1);
    finishExchange();
    EXPECT_THAT(service_.only("room"), ElementsAre("room 1:1"));
    EXPECT_FALSE(gateway().isUploadCrowded(1, 1));
}

TEST_F(OrvexMainExchangeTest, AsksForMemoryWhenItRefusesDataForLackOfIt) {
    MemoryBudget& budget = MemoryBudget::process();
    service_.onRequestData = [&](std::uint32_t connectionId, std::uint32_t requestId) {
        EXPECT_EQ(gateway().sendData("x", false, connectionId + 1, requestId), 1001);
        EXPECT_THAT(service_.only("memory"), IsEmpty());
        budget.resize(budget.held());
        EXPECT_EQ(gateway().sendData("x", false, connectionId, requestId), 57);
        budget.resize(deployment::kMemoryBudget);
        EXPECT_EQ(gateway().sendData("x", true, connectionId, requestId), 0);
    };
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_THAT(service_.only("memory"), ElementsAre("memory short"));
    EXPECT_THAT(sent_, testing::HasSubstr("\r\n\r\nx\r\n"));
}

TEST_F(OrvexMainExchangeTest, PrintsNothingAboutTextsThatAreNotUtf8) {
    const std::uint32_t connectionId = open(1024, "caf\xE9");
    answerExchange(1);
    testing::internal::CaptureStderr();
    prepare(connectionId);
    finishExchange();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(OrvexMainExchangeTest, NumbersTheRequestsOfEachExchangeFromOne) {
    answerExchange(1);
    prepare(1);
    finishExchange();
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_THAT(sent_, testing::HasSubstr("oid=\"1\" href=\"cid:part1\""));
    EXPECT_THAT(service_.only("error"), IsEmpty());
}

TEST_F(OrvexMainExchangeTest, DeliversAnAnswerThatComesBeforeTheUploadHasEnded) {
    HttpClient::setParameter("orvexd/wait_timeout/position", "30000");
    service_.onRequestData = nullptr;
    attach(1);
    Gate answered;
    fake_curl::addScript([&](fake_curl::Transfer& transfer) {
        (void)transfer.read(); // the first part is current
        answer(transfer, 2);
        answered.open();
        return transfer.readAll(sent_) ? CURLE_OK : CURLE_ABORTED_BY_CALLBACK;
    });
    prepare(1);
    ASSERT_TRUE(iterateUntil([&] { return answered.isOpen(); }));
    gateway().getData(1, 2);
    gateway().getData(1, 1);
    expectEvent("chunk 1:2 2303 [answer 1]"); // not 2302: the upload has not lowered the state
    expectEvent("chunk 1:1 2303 [answer 2]");
    EXPECT_EQ(gateway().sendData("a", true, 1, 2), 0);
    expectEvent("request data 1:1");
    EXPECT_EQ(gateway().sendData("b", true, 1, 1), 0);
    expectEvent("drop 1:2");
    expectEvent("drop 1:1");
    EXPECT_THAT(service_.only("error"), IsEmpty());
}

TEST_F(OrvexMainExchangeTest, AnnouncesTheReportedStatusBeforeThePartOfAnyTypeButPosition) {
    open(1024, "fingerprint");
    answerExchange(2);
    attach(2);
    gateway().cancelRequest(2, 1);
    HttpClient::setParameter("orvexd/wait_timeout/fingerprint", "50");
    prepare(2);
    finishExchange();
    EXPECT_THAT(service_.only("status"), ElementsAre("status 3", "status 3"));
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_THAT(service_.only("status"), SizeIs(2));
}

// -- silent clients -----------------------------------------------------------------------------

TEST_F(OrvexMainExchangeTest, DoesNotFailForASilentClient) {
    service_.onRequestData = nullptr;
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_THAT(service_.only("error"), IsEmpty());
    EXPECT_TRUE(sent_.find("Content-Id: part1\r\n\r\n\r\n--") != std::string::npos);
    gateway().getData(1, 1);
    expectEvent("chunk 1:1 2303 [answer 1]");
}

TEST_F(OrvexMainExchangeTest, AcceptsDataOrRefusesItWhileThePartIsClosedButLosesNone) {
    HttpClient::setParameter("orvexd/wait_timeout/position", "0");
    constexpr std::uint32_t kParts = 300;
    for (std::uint32_t i = 1; i < kParts; ++i) {
        attach(1);
    }
    std::map<std::uint32_t, std::string> accepted;
    service_.onRequestData = nullptr;
    answerExchange(kParts);
    prepare(1);
    // The worker closes part after part; this thread sends without being asked.
    std::uint32_t id = kParts;
    ASSERT_TRUE(iterateUntil([&] {
        for (int piece = 0; piece < 20; ++piece) {
            const int result = gateway().sendData("piece ", false, 1, id);
            if (result == 0) {
                accepted[id] += "piece ";
            } else {
                EXPECT_EQ(result, 57);
            }
        }
        id = id % kParts + 1;
        return !gateway().isTransferRunning();
    }));
    for (std::uint32_t part = 1; part <= kParts; ++part) {
        const std::uint32_t request = part == 1 ? kParts : part - 1;
        EXPECT_THAT(sent_, testing::HasSubstr("Content-Id: part" + std::to_string(part) +
                                              "\r\n\r\n" + accepted[request] + "\r\n--"));
    }
    finishExchange();
    EXPECT_THAT(service_.only("error"), IsEmpty());
}

// -- failures -----------------------------------------------------------------------------------

TEST_F(OrvexMainExchangeTest, ReportsATransportFailureAs2204) {
    attach(1);
    failExchange(CURLE_OPERATION_TIMEDOUT);
    prepare(1);
    expectEvent(failed(2204, "Timeout was reached", "1:2 1:1"));
}

TEST_F(OrvexMainExchangeTest, ReportsARejectedAnswerAs2001) {
    fake_curl::addScript([](fake_curl::Transfer& transfer) {
        transfer.respond("HTTP/1.1 404 Not Found\r\nContent-Type: text/html\r\n\r\n", {"<p/>"});
        return CURLE_OK;
    });
    prepare(1);
    expectEvent(failed(2001, "missing MIME parts", "1:1"));
}

TEST_F(OrvexMainExchangeTest, ReportsA43OfTheServerAs2204Too) {
    fake_curl::addScript([this](fake_curl::Transfer& transfer) {
        EXPECT_TRUE(transfer.readAll(sent_));
        transfer.respond("HTTP/1.1 404 Gone\r\n"
                         "Content-Type: multipart/related; boundary=b; start=head\r\n\r\n",
                         {answerBody(1)});
        return CURLE_OK;
    });
    prepare(1);
    expectEvent(
        failed(2204, "Gone\r\nContent-Type: multipart/related; boundary=b; start=head", "1:1"));
}

TEST_F(OrvexMainExchangeTest, ListsTheFailedRequestsInQueueOrder) {
    for (int i = 0; i < 10; ++i) {
        attach(1); // 1 to 10
    }
    failExchange();
    prepare(1);
    expectEvent(failed(2204, kRefused, "1:11 1:1 1:2 1:3 1:4 1:5 1:6 1:7 1:8 1:9 1:10"));
}

TEST_F(OrvexMainExchangeTest,
       DropsEveryRequestOfAFailedExchangeAndReleasesItsHeldCallsAfterTheError) {
    attach(1);
    failExchange();
    prepare(1);
    expectEvent("drop 1:2");
    drainMainContext();
    EXPECT_THAT(service_.log,
                ElementsAre("status 3", failed(2204, kRefused, "1:2 1:1"), "drop 1:1", "drop 1:2"));
    EXPECT_FALSE(exists(1, 1));
    EXPECT_FALSE(exists(1, 2));
}

TEST_F(OrvexMainExchangeTest,
       DropsAnsweredRequestsOfEarlierExchangesWithAFailureButDoesNotNameThem) {
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_TRUE(exists(1, 1));
    failExchange();
    prepare(1);
    expectEvent("drop 1:2");
    EXPECT_TRUE(service_.has(failed(2204, kRefused, "1:2")));
    EXPECT_TRUE(service_.has("drop 1:1"));
    EXPECT_FALSE(exists(1, 1));
}

TEST_F(OrvexMainExchangeTest, KeepsRequestsThatWaitWhenAnExchangeFails) {
    holdExchange([](fake_curl::Transfer&) { return CURLE_RECV_ERROR; });
    prepare(1);
    reachExchange();
    attach(1);
    answerExchange(1);
    proceed_.open();
    expectEvent("request data 1:2"); // goes with the next one
    finishExchange();
    EXPECT_TRUE(service_.has(failed(2204, "Failure when receiving data from the peer", "1:1")));
    EXPECT_TRUE(exists(1, 2));
}

TEST_F(OrvexMainExchangeTest, TellsWhyInTheSameTurnInWhichItsRequestsBecomeUnknown) {
    failExchange();
    prepare(1);
    EXPECT_TRUE(iterateUntil([this] { return !exists(1, 1); }));
    EXPECT_THAT(service_.only("error"), ElementsAre(failed(2204, kRefused, "1:1")));
    finishExchange();
}

TEST_F(OrvexMainExchangeTest, DropsDeliveredRequestsAndThoseNotAllowedAlsoInTheTimeAfterASuccess) {
    answerExchange(1);
    gateway().getData(1, prepare(1));
    awaitOutcome(); // 50 ms before the end
    expectEvent("chunk 1:1 2303 [answer 1]");
    service_.permitted = false;
    (void)thrownBy([this] { prepare(1, kKindOneOnly); });
    connectTo(2);
    service_.permitted = true;
    EXPECT_TRUE(gateway().startExchange());
    drainMainContext();
    EXPECT_FALSE(exists(1, 1));
    EXPECT_FALSE(exists(1, 2));
    EXPECT_THAT(service_.only("error"),
                ElementsAre("error 2204 [Current network connection not allowed] [1:2]"));
    EXPECT_EQ(fake_threads::started(), 1);
    finishExchange();
}

TEST_F(OrvexMainExchangeTest, SignalsAFailureAlsoWhenEveryRequestWasDelivered) {
    holdExchange([this](fake_curl::Transfer& transfer) {
        EXPECT_TRUE(transfer.readAll(sent_));
        answer(transfer, 1);
        return CURLE_PARTIAL_FILE;
    });
    gateway().getData(1, prepare(1));
    proceed_.open();
    expectEvent(failed(2204, curl_easy_strerror(CURLE_PARTIAL_FILE), ""));
    EXPECT_THAT(service_.only("chunk"), ElementsAre("chunk 1:1 2303 [answer 1]"));
}

TEST_F(OrvexMainExchangeTest, CompletesAPartThatWasCutOffAndDeliversIt) {
    holdExchange([this](fake_curl::Transfer& transfer) {
        EXPECT_TRUE(transfer.readAll(sent_));
        const std::string body = answerBody(1);
        transfer.respond("HTTP/1.1 200 OK\r\n"
                         "Content-Type: multipart/related; boundary=b; start=head\r\n\r\n",
                         {body.substr(0, body.find("answer") + 3)});
        return CURLE_PARTIAL_FILE;
    });
    open(2); // the client fetches two bytes at a time
    gateway().getData(2, prepare(2));
    proceed_.open();
    expectEvent(failed(2204, curl_easy_strerror(CURLE_PARTIAL_FILE), "2:1"));
    EXPECT_THAT(service_.only("chunk"), ElementsAre("chunk 2:1 2301 [an]"));
}

TEST_F(OrvexMainExchangeTest, EndsInAFailureReportWhenTheWorkerRunsOutOfMemory) {
    fake_curl::addScript([](fake_curl::Transfer& transfer) {
        const failing_memory::FailOnce fail(1); // the stand-in's copy succeeds
        EXPECT_EQ(transfer.write("HTTP/1.1 200 A head that does not fit into a short string\r\n"),
                  0U);
        EXPECT_TRUE(fail.hasFailed());
        return CURLE_WRITE_ERROR;
    });
    prepare(1);
    expectEvent(failed(2204, curl_easy_strerror(CURLE_WRITE_ERROR), "1:1"));
    EXPECT_FALSE(exists(1, 1));
    finishExchange();
    answerExchange(1);
    prepare(1);
    finishExchange();
    EXPECT_TRUE(exists(1, 2)); // and the next one is as any other
}

TEST_F(OrvexMainExchangeTest, SurvivesALibcurlThatHasNoHandle) {
    fake_curl::failInit(true);
    prepare(1);
    expectEvent(failed(2204, curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT), "1:1"));
}

// -- from one exchange to the next --------------------------------------------------------------

TEST_F(OrvexMainExchangeTest, StartsTheNextExchangeWhenOneHasEndedAndRequestsWait) {
    holdExchange(answerScript(1));
    prepare(1);
    reachExchange();
    for (int i = 0; i < 3; ++i) {
        attach(1);
    }
    answerExchange(3);
    proceed_.open();
    expectEvent("request data 1:4");
    finishExchange();
    EXPECT_EQ(fake_threads::started(), 2);
}

TEST_F(OrvexMainExchangeTest, WaitsForTheSweepBeforeItStartsAfterASuccess) {
    answerExchange(1);
    prepare(1);
    awaitOutcome();
    answerExchange(1);
    EXPECT_EQ(prepare(1), 2U); // within the 50 ms of the end
    EXPECT_EQ(fake_threads::started(), 1);
    expectEvent("request data 1:2");
    EXPECT_EQ(fake_threads::started(), 2);
    finishExchange();
}

TEST_F(OrvexMainExchangeTest, StartsAtOnceAfterAFailure) {
    failExchange();
    prepare(1);
    awaitOutcome();
    answerExchange(1);
    EXPECT_EQ(prepare(1), 2U); // within the 50 ms of the failed one
    EXPECT_EQ(fake_threads::started(), 2);
    finishExchange();
    EXPECT_TRUE(exists(1, 2));
    EXPECT_THAT(service_.only("error"), ElementsAre(failed(2204, kRefused, "1:1")));
}

TEST_F(OrvexMainExchangeTest, IsNotSweptByTheLateEndOfTheFailedOneBefore) {
    failExchange();
    prepare(1);
    awaitOutcome(); // its end timer has not run yet
    holdExchange(answerScript(2));
    attach(1);
    reachExchange();
    prepare(1);
    gateway().cancelRequest(1, 2); // part of the exchange: stays until that ends
    passTime(milliseconds(120));   // the failed exchange's timer runs
    EXPECT_TRUE(exists(1, 2));
    EXPECT_THAT(service_.only("drop 1:2"), IsEmpty());
    EXPECT_EQ(fake_threads::started(), 2); // nor has a second worker come up
    answerExchange(1);
    proceed_.open();
    expectEvent("drop 1:2");
    finishExchange();
}

TEST_F(OrvexMainExchangeTest, SweepsUpAfterAFailureWhenTheNextOneFoundNoWorker) {
    failExchange();
    prepare(1);
    awaitOutcome();
    fake_threads::failStart(true);
    EXPECT_EQ(thrownBy([this] { prepare(1); }), 2204);
    fake_threads::failStart(false);
    answerExchange(1);
    expectEvent("request data 1:2"); // the failed exchange's own end starts it
    finishExchange();
}

TEST_F(OrvexMainExchangeTest, LooksForSendableRequestsWhileTheWorkerDropsThoseThatFailed) {
    constexpr std::uint32_t kRequests = 100;
    constexpr int kRounds = 8; // for the thread sanitizer, which has to meet both at it
    for (int round = 0; round < kRounds; ++round) {
        gateway_.reset();
        service_.log.clear();
        (void)open();
        for (std::uint32_t i = 1; i < kRequests; ++i) {
            attach(1);
        }
        failExchange();
        prepare(1);
        EXPECT_TRUE(iterateUntil([this] {
            gateway().onNetworkAvailable();
            return !gateway().isTransferRunning();
        }));
        finishExchange();
        EXPECT_THAT(service_.only("error"), SizeIs(1));
        EXPECT_FALSE(exists(1, kRequests));
    }
}

TEST_F(OrvexMainExchangeTest, StartsOnlyOneWorkerAtATime) {
    holdExchange(answerScript(1));
    prepare(1);
    reachExchange();
    EXPECT_FALSE(gateway().startExchange());
    gateway().onNetworkAvailable();
    prepare(1);
    EXPECT_EQ(fake_threads::started(), 1);
    answerExchange(1);
    proceed_.open();
    finishExchange();
    finishExchange();
    EXPECT_EQ(fake_threads::started(), 2);
}

TEST_F(OrvexMainExchangeTest, JoinsEachWorker) {
    for (int i = 0; i < 3; ++i) {
        answerExchange(1);
        prepare(1);
        finishExchange();
    }
    EXPECT_EQ(fake_threads::started(), 3);
    EXPECT_EQ(fake_threads::joined(), 3);
}

TEST_F(OrvexMainExchangeTest, StaysInOrderOverManyExchangesInARow) {
    for (std::uint32_t i = 1; i <= 20; ++i) {
        if (i % 3 == 0) {
            failExchange();
        } else {
            answerExchange(1);
        }
        const std::uint32_t request = prepare(1);
        EXPECT_EQ(request, i);
        if (i % 3 != 0) { // a failed one may be gone already
            gateway().getData(1, request);
        }
        finishExchange();
        EXPECT_FALSE(exists(1, request));
    }
    EXPECT_THAT(service_.only("error"), SizeIs(6));
    EXPECT_THAT(service_.only("chunk"), SizeIs(14));
    EXPECT_THAT(service_.only("drop"), SizeIs(20));
}

// -- sweeps -------------------------------------------------------------------------------------

TEST_F(OrvexMainExchangeTest, DropsDeliveredAndCancelledRequestsAtItsEnd) {
    for (int i = 0; i < 9; ++i) {
        open();
    }
    attach(2);  // 2:1
    attach(10); // 10:2
    attach(3);  // 3:3
    answerExchange(4);
    prepare(1); // 1:4
    for (const auto& [connection, request] : {std::pair{2U, 1U}, {10U, 2U}, {1U, 4U}}) {
        gateway().getData(connection, request);
    }
    finishExchange();
    EXPECT_THAT(service_.only("drop"), ElementsAre("drop 1:4", "drop 2:1", "drop 10:2"));
    EXPECT_TRUE(exists(3, 3)); // not fetched
}

TEST_F(OrvexMainExchangeTest, QueuesTenThousandRequestsInTransferOrderAtLinearCost) {
    constexpr std::uint32_t kRequests = 10000;
    std::string expected = "1:" + std::to_string(kRequests + 1);
    for (std::uint32_t id = 1; id <= kRequests; ++id) {
        EXPECT_EQ(attach(1), id);
        expected += " 1:" + std::to_string(id);
    }
    const failing_memory::Count ten;
    attach(1);
    gateway().cancelRequest(1, kRequests + 1);
    const std::size_t costOfOne = ten.allocations();
    failExchange();
    const failing_memory::Count all;
    expected = "1:" + std::to_string(kRequests + 2) + expected.substr(expected.find(' '));
    prepare(1);
    // A copy of the waiting requests for each one that is queued would be a thousand times that.
    EXPECT_LT(all.allocations(), 20 * costOfOne + 1000);
    EXPECT_LT(all.bytes(), 2000 * kRequests);
    expectEvent(failed(2204, kRefused, expected));
    finishExchange();
    EXPECT_FALSE(exists(1, 1));
    EXPECT_FALSE(exists(1, kRequests));
}

} // namespace
} // namespace orvexd::test
