#include "http/Exchange.h"

#include "fakes/FailingMemory.h"
#include "fakes/FakeCurl.h"
#include "fakes/FakePlatform.h"
#include "fakes/FakeThreads.h"
#include "fakes/MainContext.h"
#include "http/ExchangeParts.h"
#include "http/HttpClient.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace orvexd::test {
namespace {

using fake_curl::Transfer;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class ExchangeTest : public testing::Test {
protected:
    ExchangeTest() {
        drainMainContext();
        fake_curl::reset();
        fake_platform::reset();
        fake_threads::reset();
        HttpClient::getConfiguration().clear();
        HttpClient::setParameter("orvexd/wait_timeout/position", "0");
    }

    void TearDown() override {
        exchange_.reset();
        EXPECT_EQ(fake_curl::liveHandles(), 0);
        EXPECT_EQ(fake_threads::started(), fake_threads::joined());
        HttpClient::getConfiguration().clear();
    }

    /// The exchange that is being assembled or runs; a new one after each `runExchange`.
    Exchange& exchange() {
        if (!exchange_) {
            exchange_ = std::make_unique<Exchange>(client_, owner_);
        }
        return *exchange_;
    }

    RequestPointer addRequest(std::uint32_t id, bool prepared = true) {
        auto request = makeRequest(id, prepared);
        exchange().addPart(request);
        return request;
    }

    /// Runs the assembled exchange on this thread, as its worker does, up to the moment at which
    /// its outcome has reached the main loop.
    void runExchange() {
        (void)Exchange::threadFunc(&exchange());
        drainMainContext();
    }

    /// Runs an exchange of its own, of one request against `script`.
    void runExchange(fake_curl::Script script) {
        exchange_.reset();
        fake_curl::addScript(std::move(script));
        addRequest(1);
        runExchange();
    }

    /// Runs the main loop until the end of the exchange has been told.
    void awaitEnd() {
        ASSERT_TRUE(iterateUntil(
            [this] { return !owner_.log.empty() && owner_.log.back() == "finished"; }));
    }

    RecordingOwner owner_;
    HttpClient client_{owner_};
    std::unique_ptr<Exchange> exchange_;
};

CURLcode succeed(Transfer& /*transfer*/) {
    return CURLE_OK;
}

fake_curl::Script failWith(CURLcode code) {
    return [code](Transfer&) { return code; };
}

constexpr const char* kHead = "HTTP/1.1 200 OK\r\n"
                              "Content-Type: multipart/related; boundary=\"b\"; start=\"head\"\r\n"
                              "\r\n";

std::string answerTo(int requests) {
    std::string document = "<SimpleLocationProtocol><SlpResponse status=\"ok\">";
    std::string parts;
    for (int i = 1; i <= requests; ++i) {
        const std::string number = std::to_string(i);
        document.append("<result oid=\"").append(number);
        document.append("\" href=\"cid:answer").append(number).append("\"/>");
        parts.append("\r\n--b\r\nContent-Id: answer").append(number);
        parts.append("\r\n\r\nanswer to ").append(number);
    }
    return "--b\r\nContent-Id: head\r\n\r\n" + document +
           "</SlpResponse></SimpleLocationProtocol>" + parts + "\r\n--b--\r\n";
}

// -- the road of an exchange --------------------------------------------------------------------

TEST_F(ExchangeTest, GathersTheItemsThatTheCallbacksAreGiven) {
    runExchange([](Transfer& transfer) {
        EXPECT_TRUE(transfer.read(16381, 4).bytes.starts_with("\r\n--"));
        EXPECT_EQ(transfer.write("HTTP/1.1 200 OK\r\n", 1), 17U);
        EXPECT_EQ(transfer.write("12345678", 4), 8U);
        EXPECT_EQ(transfer.write("", 4), 0U);
        return CURLE_OK;
    });
}

TEST_F(ExchangeTest, TakesEveryByteOfTheResponseWhateverItHolds) {
    runExchange([](Transfer& transfer) {
        EXPECT_EQ(transfer.write("not HTTP\r\n\r\n"), 12U);
        EXPECT_EQ(transfer.write(std::string_view("\0\xff--b", 5)), 5U);
        return CURLE_OK;
    });
}

// -- the exchange -------------------------------------------------------------------------------

TEST_F(ExchangeTest, SendsTheHeaderLinesInTheirOrder) {
    std::string body;
    runExchange([&](Transfer& transfer) {
        EXPECT_TRUE(transfer.readAll(body));
        return CURLE_OK;
    });
    const std::string boundary = body.substr(4, 70);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_HTTPHEADER),
              "Content-Type: multipart/related; type=\"text/xml\"; boundary=\"" + boundary +
                  "\"; start=\"slpHeaderPart\"\nTransfer-Encoding: chunked\nExpect:");
}

TEST_F(ExchangeTest, SendsTheSlpPartThenEachRequestThenTheClosingDelimiter) {
    std::string body;
    fake_curl::addScript([&](Transfer& transfer) {
        EXPECT_TRUE(transfer.readAll(body));
        return CURLE_OK;
    });
    owner_.onRequestData = [&](std::uint32_t, std::uint32_t id) {
        EXPECT_TRUE(id == 1 || id == 2);
    };
    addRequest(2);
    addRequest(1);
    runExchange();
    const std::string boundary = body.substr(4, 70);
    const std::string begin = "\r\n--" + boundary +
                              "\r\nContent-Type: text/xml; charset=UTF-8\r\n"
                              "Content-Transfer-Encoding: 8bit\r\nContent-Id: slpHeaderPart\r\n\r\n"
                              "<?xml version=\"1.0\"?>\r\n<SimpleLocationProtocol ";
    const std::string end = "</SimpleLocationProtocol>\r\n" + partHead(boundary, "part1") +
                            partHead(boundary, "part2") + "\r\n--" + boundary + "--\r\n";
    EXPECT_EQ(body.substr(0, begin.size()), begin);
    EXPECT_EQ(body.substr(body.size() - end.size()), end);
}

TEST_F(ExchangeTest, UsesOneBoundaryThroughoutAnExchange) {
    std::string body;
    runExchange([&](Transfer& transfer) {
        EXPECT_TRUE(transfer.readAll(body));
        return CURLE_OK;
    });
    const std::string delimiter = body.substr(0, 74);
    std::size_t count = 0;
    for (std::size_t at = 0; (at = body.find(delimiter, at)) != std::string::npos; ++at) {
        ++count;
    }
    EXPECT_EQ(count, 3U);
}

TEST_F(ExchangeTest, ReportsNothingButTheEndOfASuccessfulExchange) {
    const auto request = addRequest(1);
    fake_curl::addScript([](Transfer& transfer) {
        std::string body;
        EXPECT_TRUE(transfer.readAll(body));
        transfer.respond(kHead, {answerTo(1)});
        return CURLE_OK;
    });
    runExchange();
    EXPECT_EQ(request->state(), RequestState::AllPartsReceived);
    awaitEnd();
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1", "finished"));
}

TEST_F(ExchangeTest, ReportsATransportFailureWithTheUnfinishedRequestsInQueueOrder) {
    for (const std::uint32_t id : {12U, 7U, 9U}) {
        addRequest(id, id != 7);
    }
    fake_curl::addScript(failWith(CURLE_COULDNT_CONNECT));
    runExchange();
    EXPECT_THAT(owner_.log, ElementsAre("failed 43 [Couldn't connect to server] [1:9 1:12 1:7]"));
}

TEST_F(ExchangeTest, LeavesDeliveredRequestsOutOfTheReport) {
    const auto first = addRequest(1);
    addRequest(2);
    fake_curl::addScript([&](Transfer&) {
        first->setState(RequestState::Delivered);
        return CURLE_RECV_ERROR;
    });
    runExchange();
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [Failure when receiving data from the peer] [1:2]"));
}

TEST_F(ExchangeTest, ReportsAFailureAlsoWhenNoRequestIsUnfinished) {
    const auto first = addRequest(1);
    fake_curl::addScript([&](Transfer&) {
        first->setState(RequestState::Delivered);
        return CURLE_RECV_ERROR;
    });
    runExchange();
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [Failure when receiving data from the peer] []"));
}

TEST_F(ExchangeTest, ReportsTheParsersErrorOfASuccessfulTransfer) {
    runExchange([](Transfer& transfer) {
        transfer.respond("HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\n", {"<html/>"});
        return CURLE_OK;
    });
    EXPECT_THAT(owner_.log, ElementsAre("failed 1003 [missing MIME parts] [1:1]"));
}

TEST_F(ExchangeTest, ReportsAnHttpStatusThatACompleteAnswerCarries) {
    runExchange([](Transfer& transfer) {
        const std::string head(kHead);
        transfer.respond("HTTP/1.1 503 Busy" + head.substr(head.find("\r\n")), {answerTo(1)});
        return CURLE_OK;
    });
    ASSERT_THAT(owner_.log, SizeIs(1));
    EXPECT_TRUE(owner_.log[0].starts_with("failed 55 [Busy\r\nContent-Type: "));
    EXPECT_TRUE(owner_.log[0].ends_with("] [1:1]"));
}

TEST_F(ExchangeTest, PrefersTheTransportFailureToTheParsersError) {
    runExchange([](Transfer& transfer) {
        transfer.respond("HTTP/1.1 500 No\r\n\r\n", {});
        return CURLE_PARTIAL_FILE;
    });
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [" + std::string(curl_easy_strerror(CURLE_PARTIAL_FILE)) +
                            "] [1:1]"));
}

TEST_F(ExchangeTest, CompletesAPartThatAFailedTransferCutsOff) {
    const auto request = addRequest(1);
    fake_curl::addScript([](Transfer& transfer) {
        const std::string answer = answerTo(1);
        transfer.respond(kHead, {answer.substr(0, answer.find("answer to") + 6)});
        return CURLE_PARTIAL_FILE;
    });
    runExchange();
    EXPECT_EQ(request->state(), RequestState::AllPartsReceived);
    EXPECT_THAT(owner_.log, SizeIs(1));
}

TEST_F(ExchangeTest, DoesNotCarryAnErrorTextIntoTheNextExchange) {
    runExchange(failWith(CURLE_COULDNT_CONNECT));
    EXPECT_NE(client_.errorText(), "");
    runExchange([](Transfer& transfer) {
        std::string body;
        EXPECT_TRUE(transfer.readAll(body));
        transfer.respond(kHead, {answerTo(1)});
        return CURLE_OK;
    });
    EXPECT_EQ(client_.errorText(), "");
}

TEST_F(ExchangeTest, RunsFromItsStartUntilItsOutcomeHasReachedTheMainLoop) {
    addRequest(1);
    EXPECT_FALSE(exchange().isTransferRunning());
    fake_curl::addScript(succeed);
    ASSERT_TRUE(exchange().start());
    EXPECT_TRUE(exchange().isTransferRunning());
    exchange().join();
    EXPECT_TRUE(exchange().isTransferRunning());
    drainMainContext();
    EXPECT_FALSE(exchange().isTransferRunning());
}

TEST_F(ExchangeTest, KnowsAFailureFromASuccess) {
    runExchange(failWith(CURLE_RECV_ERROR));
    EXPECT_TRUE(exchange().hasFailed());
    runExchange([](Transfer& transfer) {
        transfer.respond(kHead, {answerTo(1)});
        return CURLE_OK;
    });
    EXPECT_FALSE(exchange().hasFailed());
}

TEST_F(ExchangeTest, ReportsItsFailureOnTheMainLoopOnly) {
    addRequest(1);
    fake_curl::addScript(failWith(CURLE_RECV_ERROR));
    ASSERT_TRUE(exchange().start());
    exchange().join();
    EXPECT_THAT(owner_.log, IsEmpty());
    drainMainContext();
    EXPECT_THAT(owner_.log, SizeIs(1));
}

TEST_F(ExchangeTest, HoldsNoRequestAnyMoreWhenItStopsRunning) {
    std::weak_ptr<RequestData> request = addRequest(1);
    fake_curl::addScript(succeed);
    ASSERT_TRUE(exchange().start());
    exchange().join();
    EXPECT_TRUE(exchange().isTransferRunning());
    EXPECT_TRUE(request.expired());
}

TEST_F(ExchangeTest, OnlyAnnouncesItsEndWhenItHasNoRequests) {
    runExchange();
    EXPECT_EQ(fake_curl::initCount(), 0);
    EXPECT_FALSE(exchange().isTransferRunning());
    awaitEnd();
    EXPECT_THAT(owner_.log, ElementsAre("finished"));
}

TEST_F(ExchangeTest, AnnouncesTheEndFiftyMillisecondsLater) {
    const gint64 start = g_get_monotonic_time();
    runExchange();
    EXPECT_THAT(owner_.log, IsEmpty());
    awaitEnd();
    EXPECT_GE(g_get_monotonic_time() - start, 50000);
}

TEST_F(ExchangeTest, AnnouncesNothingWhenItIsGone) {
    addRequest(1);
    fake_curl::addScript(failWith(CURLE_RECV_ERROR));
    ASSERT_TRUE(exchange().start());
    exchange_.reset();
    runExchange();
    exchange_.reset();
    passTime(milliseconds(60));
    EXPECT_THAT(owner_.log, IsEmpty());
}

TEST_F(ExchangeTest, MayBeDestroyedWhenItsEndIsAnnounced) {
    owner_.onFinished = [this] { exchange_.reset(); };
    runExchange();
    awaitEnd();
    EXPECT_EQ(exchange_, nullptr);
}

TEST_F(ExchangeTest, RunsOnAThreadOfItsName) {
    addRequest(1);
    fake_curl::addScript(succeed);
    ASSERT_TRUE(exchange().start());
    EXPECT_EQ(fake_threads::lastName(), "HttpClient");
}

TEST_F(ExchangeTest, PutsItsRequestsBackToTheirBeginningWhenThereIsNoThread) {
    const auto request = addRequest(1);
    EXPECT_EQ(request->state(), RequestState::Queued);
    fake_threads::failStart(true);
    EXPECT_FALSE(exchange().start());
    fake_threads::failStart(false);
    EXPECT_EQ(request->state(), RequestState::Created);
    EXPECT_EQ(request.use_count(), 1);
    EXPECT_FALSE(exchange().isTransferRunning());
}

// -- queue --------------------------------------------------------------------------------------

std::string keysInQueueOrder(RecordingOwner& owner) {
    const std::string& report = owner.log.at(0);
    const std::size_t begin = report.rfind('[') + 1;
    return report.substr(begin, report.size() - begin - 1);
}

TEST_F(ExchangeTest, QueuesPreparedRequestsBeforeAttachedOnes) {
    addRequest(7, false);
    addRequest(5, true);
    runExchange();
    EXPECT_EQ(keysInQueueOrder(owner_), "1:5 1:7");
}

TEST_F(ExchangeTest, QueuesAPreparedRequestBeforeAnAttachedOneOfLowerId) {
    addRequest(5, false);
    addRequest(7, true);
    runExchange();
    EXPECT_EQ(keysInQueueOrder(owner_), "1:7 1:5");
}

TEST_F(ExchangeTest, QueuesRequestsOfAKindByAscendingId) {
    addRequest(9, false);
    addRequest(4, false);
    addRequest(8, true);
    addRequest(10, true);
    addRequest(2, true);
    runExchange();
    EXPECT_EQ(keysInQueueOrder(owner_), "1:2 1:8 1:10 1:4 1:9");
}

TEST_F(ExchangeTest, MarksAQueuedRequest) {
    EXPECT_EQ(addRequest(1)->state(), RequestState::Queued);
}

// -- cancellation -------------------------------------------------------------------------------

TEST_F(ExchangeTest, AbortsAnUploadThatWasCancelledBeforeItsFirstStep) {
    addRequest(1);
    fake_curl::addScript([](Transfer& transfer) {
        EXPECT_TRUE(transfer.read().aborted);
        return CURLE_ABORTED_BY_CALLBACK;
    });
    exchange().cancelTransfer();
    runExchange();
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [Operation was aborted by an application callback] [1:1]"));
}

// -- no room -------------------------------------------------------------------------------------

TEST_F(ExchangeTest, TimesOutWhenThereIsNoRoomForTheEndOfTheAnswer) {
    Charge others(MemoryBudget::process());
    runExchange([&others](Transfer& transfer) {
        std::string answer = answerTo(1);
        answer.resize(answer.rfind("\n--b--")); // ends with a carriage return, which may be data
        transfer.respond(kHead, {answer});
        others.set(MemoryBudget::process().size());
        fake_threads::replaceWaits([](std::int64_t /*deadline*/) { return false; });
        return CURLE_OK;
    });
    fake_threads::replaceWaits(nullptr);
    EXPECT_THAT(owner_.log,
                ElementsAre("memory is short", "failed 43 [Timeout was reached] [1:1]"));
}

// -- no memory ----------------------------------------------------------------------------------

/// Writes `bytes` with an allocation failing in the parser, if it makes more than `after` of them.
bool writeWithoutMemory(Transfer& transfer, const std::string& bytes, int after, bool& failed) {
    const failing_memory::FailOnce fail(after + 1); // the stand-in copies the bytes first
    const std::size_t taken = transfer.write(bytes);
    failed = fail.hasFailed();
    EXPECT_EQ(taken, failed ? 0 : bytes.size());
    return !failed;
}

TEST_F(ExchangeTest, EndsInAFailureReportWhenMemoryRunsOutInTheResponsesHead) {
    bool failed = true;
    int failures = -1;
    for (; failed; ++failures) {
        owner_.log.clear();
        runExchange([&](Transfer& transfer) {
            return writeWithoutMemory(transfer, kHead, failures + 1, failed) ? CURLE_OK
                                                                             : CURLE_WRITE_ERROR;
        });
        EXPECT_THAT(owner_.log,
                    ElementsAre(failed ? "failed 43 [" +
                                             std::string(curl_easy_strerror(CURLE_WRITE_ERROR)) +
                                             "] [1:1]"
                                       : "failed 1003 [missing MIME parts] [1:1]"));
        EXPECT_FALSE(exchange().isTransferRunning());
        EXPECT_EQ(fake_curl::liveHandles(), 0);
    }
    EXPECT_GT(failures, 0);
}

TEST_F(ExchangeTest, EndsInAFailureReportWhenMemoryRunsOutInTheResponsesBody) {
    const std::string answer = answerTo(1);
    bool failed = true;
    int failures = -1;
    for (; failed; ++failures) {
        owner_.log.clear();
        runExchange([&](Transfer& transfer) {
            transfer.respond(kHead, {});
            return writeWithoutMemory(transfer, answer, failures + 1, failed) ? CURLE_OK
                                                                              : CURLE_WRITE_ERROR;
        });
        if (failed) {
            EXPECT_THAT(owner_.log, ElementsAre("failed 43 [" +
                                                std::string(curl_easy_strerror(CURLE_WRITE_ERROR)) +
                                                "] [1:1]"));
        } else {
            EXPECT_THAT(owner_.log, IsEmpty());
        }
        EXPECT_FALSE(exchange().isTransferRunning());
        EXPECT_EQ(fake_curl::liveHandles(), 0);
    }
    EXPECT_GT(failures, 0);
}

TEST_F(ExchangeTest, EndsInAFailureReportWhenMemoryRunsOutInTheUpload) {
    runExchange([](Transfer& transfer) {
        const failing_memory::FailOnce fail(1); // the stand-in's buffer succeeds
        const bool aborted = transfer.read().aborted;
        EXPECT_TRUE(fail.hasFailed());
        EXPECT_TRUE(aborted);
        return CURLE_ABORTED_BY_CALLBACK;
    });
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [Operation was aborted by an application callback] [1:1]"));
}

TEST_F(ExchangeTest, Reports2001WhenMemoryRunsOutBeforeTheTransfer) {
    addRequest(1);
    {
        const failing_memory::FailOnce fail;
        exchange().runExchange();
        EXPECT_TRUE(fail.hasFailed());
    }
    awaitEnd();
    EXPECT_FALSE(exchange().isTransferRunning());
    EXPECT_THAT(owner_.log, ElementsAre("failed 2001 [std::bad_alloc] [1:1]", "finished"));
}

TEST_F(ExchangeTest, Reports2001WhenThePlatformThrowsSomethingOfItsOwn) {
    owner_.proxyFault = 7;
    addRequest(1);
    runExchange();
    awaitEnd();
    EXPECT_THAT(owner_.log, ElementsAre("failed 2001 [] [1:1]", "finished"));
    EXPECT_EQ(fake_curl::liveHandles(), 0);
}

} // namespace
} // namespace orvexd::test
