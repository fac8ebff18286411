#include "http/HttpClient.h"

#include "config/ConfHandler.h"
#include "fakes/FailingMemory.h"
#include "fakes/FakeCurl.h"
#include "fakes/FakePlatform.h"
#include "fakes/MainContext.h"
#include "http/ExchangeParts.h"
#include "http/KeyPassphrase.h"
#include "http/RequestBody.h"
#include "support/Deployment.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace orvexd::test {
namespace {

using fake_curl::Transfer;
using std::chrono::milliseconds;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;
using testing::Ne;
using testing::SizeIs;

/// The client with the operations that only the gateway core uses.
class Client : public HttpClient {
public:
    using HttpClient::abandonExchange;
    using HttpClient::beginExchange;
    using HttpClient::HttpClient;
};

struct NamedOption {
    CURLoption id;
    std::string value;
    bool operator==(const NamedOption&) const = default;
    friend std::ostream& operator<<(std::ostream& out, const NamedOption& option) {
        const curl_easyoption* known = curl_easy_option_by_id(option.id);
        return out << (known != nullptr ? known->name : "?") << "=" << option.value;
    }
};

class HttpClientTest : public testing::Test {
protected:
    HttpClientTest() {
        fake_curl::reset();
        fake_platform::reset();
        HttpClient::getConfiguration().clear();
        ConfHandler::confItems().clear();
        HttpClient::setParameter("orvexd/wait_timeout/position", "0");
        globalBalance_ = fake_curl::globalBalance();
        client_.emplace(owner_);
    }

    void TearDown() override {
        client_.reset();
        EXPECT_EQ(fake_curl::globalBalance(), globalBalance_);
        EXPECT_EQ(fake_curl::liveHandles(), 0);
        HttpClient::getConfiguration().clear();
        ConfHandler::confItems().clear();
    }

    Client& client() { return *client_; }

    RequestPointer addRequest(std::uint32_t id, bool prepared = true) {
        auto request = makeRequest(id, prepared);
        client().addPart(request);
        return request;
    }

    /// Runs the assembled exchange on this thread, as its worker does.
    void runExchange() {
        client().beginExchange();
        (void)HttpClient::threadFunc(static_cast<HttpClient*>(&client()));
    }

    /// Runs an exchange of one request against `script`.
    void runExchange(fake_curl::Script script) {
        fake_curl::addScript(std::move(script));
        addRequest(1);
        runExchange();
    }

    /// performTransfer on an empty body.
    int performTransfer(fake_curl::Script script, const std::vector<std::string>& lines = {}) {
        fake_curl::addScript(std::move(script));
        const Queue queue;
        DataSignal signal;
        RequestBody body(queue, "limit", "prefix", signal, owner_, HttpClient::getConfiguration());
        SlpResponseParser parser(queue);
        return client().performTransfer(lines, body, parser);
    }

    static std::vector<NamedOption> options() {
        std::vector<NamedOption> all;
        for (const auto& option : fake_curl::options()) {
            all.push_back({option.id, option.value});
        }
        return all;
    }

    int globalBalance_ = 0;
    RecordingOwner owner_;
    std::optional<Client> client_;
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

// -- life and parameters ------------------------------------------------------------------------

TEST_F(HttpClientTest, initialisesLibcurlWithTlsAndCleansUp) {
    EXPECT_EQ(fake_curl::globalBalance(), globalBalance_ + 1);
    EXPECT_EQ(fake_curl::globalFlags(), CURL_GLOBAL_SSL);
    client_.reset();
    EXPECT_EQ(fake_curl::globalBalance(), globalBalance_);
}

TEST_F(HttpClientTest, releasesAHandleThatIsLeftAtItsEnd) {
    client().setupHandle();
    EXPECT_EQ(fake_curl::liveHandles(), 1);
    client_.reset();
    EXPECT_EQ(fake_curl::liveHandles(), 0);
}

TEST_F(HttpClientTest, copiesTheFourTimeoutsThatAreInTheStoreWhenItIsMade) {
    client_.reset();
    for (const char* key :
         {"orvexd/wait_timeout/fingerprint", "orvexd/wait_timeout/", "orvexd/connect_timeout",
          "orvexd/transfer_timeout", "orvexd/wait_timeout", "orvexd/wait_timeout/position2"}) {
        ConfHandler::setParameter(key, std::string("from file ") + key);
    }
    client_.emplace(owner_);
    const Parameters& map = HttpClient::getConfiguration();
    for (const char* key : {"orvexd/wait_timeout/fingerprint", "orvexd/wait_timeout/",
                            "orvexd/connect_timeout", "orvexd/transfer_timeout"}) {
        EXPECT_EQ(map.get(key), std::string("from file ") + key);
    }
    EXPECT_EQ(map.get("orvexd/wait_timeout"), "");
    EXPECT_EQ(map.get("orvexd/wait_timeout/position2"), "");
}

TEST_F(HttpClientTest, keepsAParameterWhenTheStoreHasAnEmptyValue) {
    client_.reset();
    HttpClient::setParameter("orvexd/connect_timeout", "7");
    ConfHandler::setParameter("orvexd/connect_timeout", "");
    client_.emplace(owner_);
    EXPECT_EQ(HttpClient::getConfiguration().get("orvexd/connect_timeout"), "7");
}

TEST_F(HttpClientTest, doesNotSeeValuesThatAreStoredAfterItWasMade) {
    ConfHandler::setParameter("orvexd/connect_timeout", "1");
    ConfHandler::setParameter("orvexd/transfer_timeout", "2");
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_CONNECTTIMEOUT), "30");
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_TIMEOUT), "60");
}

TEST_F(HttpClientTest, replacesAParameterThatIsSetAgain) {
    HttpClient::setParameter("key", "one");
    HttpClient::setParameter("key", "two");
    EXPECT_EQ(HttpClient::getConfiguration().get("key"), "two");
    HttpClient::setParameter("key", "");
    EXPECT_EQ(HttpClient::getConfiguration().get("key", "default"), "");
}

TEST_F(HttpClientTest, setsAnEmptyParameterOnlyUnconditionally) {
    HttpClient::setParameterIfSet("key", "one");
    HttpClient::setParameterIfSet("key", "");
    EXPECT_EQ(HttpClient::getConfiguration().get("key"), "one");
}

TEST_F(HttpClientTest, sharesTheParameterMapAmongAllClients) {
    EXPECT_EQ(&HttpClient::getConfiguration(), &HttpClient::getConfiguration());
}

// -- options ------------------------------------------------------------------------------------

TEST_F(HttpClientTest, setsTheHandlesOptionsInTheirOrder) {
    fake_platform::change([](auto& state) { state.preinstalledFilesPath = "/keys"; });
    EXPECT_EQ(client().setupHandle(), 0);
    const std::vector<NamedOption> expected = {
        {CURLOPT_NOSIGNAL, "1"},
        {CURLOPT_DNS_CACHE_TIMEOUT, "0"},
        {CURLOPT_IPRESOLVE, std::to_string(CURL_IPRESOLVE_V4)},
        {CURLOPT_SSLVERSION, std::to_string(CURL_SSLVERSION_TLSv1)},
        {CURLOPT_SSL_VERIFYPEER, "1"},
        {CURLOPT_SSLCERT, "/keys/SlpClient.pem"},
        {CURLOPT_SSLKEY, "/keys/SlpClient-key.pem"},
        {CURLOPT_KEYPASSWD, KeyPassphrase().text()},
        {CURLOPT_CAINFO, "/keys/Positioning_CA.pem"},
        {CURLOPT_SSL_VERIFYHOST, "2"},
        {CURLOPT_HTTP_VERSION, std::to_string(CURL_HTTP_VERSION_1_1)},
    };
    EXPECT_EQ(options(), expected);
}

TEST_F(HttpClientTest, setsTheTransfersOptionsInTheirOrder) {
    owner_.proxy = "proxy.example:8080";
    client().setupHandle();
    fake_curl::reset();
    EXPECT_EQ(performTransfer(succeed, {"First: 1", "Second:"}), 0);
    const std::vector<NamedOption> expected = {
        {CURLOPT_HTTPHEADER, "First: 1\nSecond:"},
        {CURLOPT_HEADER, "1"},
        {CURLOPT_POST, "1"},
        {CURLOPT_ERRORBUFFER, "ptr"},
        {CURLOPT_CONNECTTIMEOUT, "30"},
        {CURLOPT_TIMEOUT, "60"},
        {CURLOPT_READFUNCTION, "ptr"},
        {CURLOPT_READDATA, "ptr"},
        {CURLOPT_PROXY, "proxy.example:8080"},
        {CURLOPT_NOPROXY, ""},
        {CURLOPT_URL, deployment::kServerUrl},
        {CURLOPT_WRITEFUNCTION, "ptr"},
        {CURLOPT_WRITEDATA, "ptr"},
        {CURLOPT_SOCKOPTFUNCTION, "ptr"},
        {CURLOPT_FRESH_CONNECT, "0"},
    };
    EXPECT_EQ(options(), expected);
}

TEST_F(HttpClientTest, setsUpTheHandleBeforeTheTransfer) {
    performTransfer(succeed);
    ASSERT_THAT(options(), SizeIs(11 + 15));
    EXPECT_EQ(options().front().id, CURLOPT_NOSIGNAL);
    EXPECT_EQ(options()[11].id, CURLOPT_HTTPHEADER);
}

TEST_F(HttpClientTest, installsNoTlsHook) {
    performTransfer(succeed);
    EXPECT_THAT(fake_curl::options(),
                Each(Field(&fake_curl::Option::id, Ne(CURLOPT_SSL_CTX_FUNCTION))));
    EXPECT_THAT(fake_curl::options(),
                Each(Field(&fake_curl::Option::id, Ne(CURLOPT_SSL_CIPHER_LIST))));
}

TEST_F(HttpClientTest, takesThePassphraseFromTheHandleWhenTheUploadBegins) {
    performTransfer([](fake_curl::Transfer& transfer) {
        EXPECT_EQ(fake_curl::lastOption(CURLOPT_KEYPASSWD), KeyPassphrase().text());
        transfer.read();
        EXPECT_EQ(fake_curl::lastOption(CURLOPT_KEYPASSWD), "null");
        return CURLE_OK;
    });
}

TEST_F(HttpClientTest, givesEveryHandleThePassphraseAnew) {
    for (int i = 0; i < 2; ++i) {
        performTransfer([](fake_curl::Transfer& transfer) {
            EXPECT_EQ(fake_curl::lastOption(CURLOPT_KEYPASSWD), KeyPassphrase().text());
            transfer.read();
            return CURLE_OK;
        });
    }
}

TEST_F(HttpClientTest, usesNoProxyWhenThePlatformNamesNone) {
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_PROXY), "");
    EXPECT_THAT(options(), testing::Contains(NamedOption{CURLOPT_PROXY, ""}));
}

TEST_F(HttpClientTest, postsToAnHttpsServerWithAnExplicitPort) {
    EXPECT_THAT(deployment::kServerUrl, testing::MatchesRegex("https://[^/:]+:[0-9]+(/.*)?"));
}

TEST_F(HttpClientTest, leavesAHandleThatExistsAsItIs) {
    EXPECT_EQ(client().setupHandle(), 0);
    const auto before = options();
    EXPECT_EQ(client().setupHandle(), 0);
    EXPECT_EQ(fake_curl::initCount(), 1);
    EXPECT_EQ(options(), before);
}

TEST_F(HttpClientTest, reports57WhenLibcurlHasNoHandleToGive) {
    fake_curl::failInit(true);
    EXPECT_EQ(client().setupHandle(), 57);
    EXPECT_THAT(options(), IsEmpty());
}

struct TimeoutCase {
    const char* name;
    const char* value;
    const char* seconds;
};

class HttpClientTimeoutTest : public HttpClientTest,
                              public testing::WithParamInterface<TimeoutCase> {};

TEST_P(HttpClientTimeoutTest, isReadAsADecimalNumber) {
    HttpClient::setParameter("orvexd/connect_timeout", GetParam().value);
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_CONNECTTIMEOUT), GetParam().seconds);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_TIMEOUT), "60");
    HttpClient::getConfiguration().clear();
    HttpClient::setParameter("orvexd/transfer_timeout", GetParam().value);
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_CONNECTTIMEOUT), "30");
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_TIMEOUT), GetParam().seconds);
}

INSTANTIATE_TEST_SUITE_P(
    , HttpClientTimeoutTest,
    testing::Values(TimeoutCase{"number", "12", "12"}, TimeoutCase{"blanksInFront", "  12", "12"},
                    TimeoutCase{"trailingGarbage", "12 s", "12"},
                    TimeoutCase{"noDigits", "soon", "0"}, TimeoutCase{"empty", "", "0"},
                    TimeoutCase{"tooLarge", "99999999999999999999", "0"},
                    TimeoutCase{"tooSmall", "-99999999999999999999", "0"},
                    TimeoutCase{"negative", "-3", "-3"}, TimeoutCase{"hexadecimal", "0x10", "0"}),
    [](const auto& test) { return test.param.name; });

TEST_F(HttpClientTest, connectsAfreshOnceAfterEachRequestForIt) {
    client().requestFreshConnect();
    client().requestFreshConnect();
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_FRESH_CONNECT), "1");
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_FRESH_CONNECT), "0");
    client().requestFreshConnect();
    performTransfer(failWith(CURLE_COULDNT_CONNECT));
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_FRESH_CONNECT), "1");
}

// -- the transfer -------------------------------------------------------------------------------

TEST_F(HttpClientTest, usesAHandleForOneTransferOnly) {
    EXPECT_EQ(performTransfer([](Transfer&) {
                  EXPECT_EQ(fake_curl::liveHandles(), 1);
                  return CURLE_OK;
              }),
              0);
    EXPECT_EQ(fake_curl::liveHandles(), 0);
    EXPECT_EQ(performTransfer(succeed), 0);
    EXPECT_EQ(fake_curl::initCount(), 2);
}

TEST_F(HttpClientTest, leavesNoHandleBehindAFailedTransfer) {
    EXPECT_EQ(performTransfer(failWith(CURLE_OPERATION_TIMEDOUT)), 43);
    EXPECT_EQ(fake_curl::liveHandles(), 0);
    EXPECT_EQ(performTransfer(succeed), 0);
    EXPECT_EQ(fake_curl::initCount(), 2);
}

TEST_F(HttpClientTest, reports43AndLibcurlsTextForEachOfItsFailures) {
    for (const CURLcode code :
         {CURLE_UNSUPPORTED_PROTOCOL, CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_RESOLVE_HOST,
          CURLE_COULDNT_CONNECT, CURLE_WEIRD_SERVER_REPLY, CURLE_WRITE_ERROR,
          CURLE_OPERATION_TIMEDOUT, CURLE_SSL_CONNECT_ERROR, CURLE_ABORTED_BY_CALLBACK,
          CURLE_SSL_CERTPROBLEM, CURLE_PEER_FAILED_VERIFICATION, CURLE_RECV_ERROR}) {
        EXPECT_EQ(performTransfer(failWith(code)), 43);
        EXPECT_EQ(client().errorText(), curl_easy_strerror(code));
        EXPECT_EQ(client().diagnostic(), "error response from curl: " + std::to_string(code));
    }
}

TEST_F(HttpClientTest, reports43WhenThereIsNoHandle) {
    fake_curl::failInit(true);
    EXPECT_EQ(performTransfer(succeed), 43);
    EXPECT_EQ(client().errorText(), curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT));
    EXPECT_EQ(fake_curl::liveHandles(), 0);
}

TEST_F(HttpClientTest, gathersTheItemsThatTheCallbacksAreGiven) {
    runExchange([](Transfer& transfer) {
        EXPECT_TRUE(transfer.read(16381, 4).bytes.starts_with("\r\n--"));
        EXPECT_EQ(transfer.write("HTTP/1.1 200 OK\r\n", 1), 17U);
        EXPECT_EQ(transfer.write("12345678", 4), 8U);
        EXPECT_EQ(transfer.write("", 4), 0U);
        return CURLE_OK;
    });
}

TEST_F(HttpClientTest, takesEveryByteOfTheResponseWhateverItHolds) {
    runExchange([](Transfer& transfer) {
        EXPECT_EQ(transfer.write("not HTTP\r\n\r\n"), 12U);
        EXPECT_EQ(transfer.write(std::string_view("\0\xff--b", 5)), 5U);
        return CURLE_OK;
    });
}

// -- the exchange -------------------------------------------------------------------------------

TEST_F(HttpClientTest, sendsTheHeaderLinesInTheirOrder) {
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

TEST_F(HttpClientTest, sendsTheSlpPartThenEachRequestThenTheClosingDelimiter) {
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

TEST_F(HttpClientTest, usesOneBoundaryThroughoutAnExchange) {
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

TEST_F(HttpClientTest, appendsTheSlpPartAndReturnsZero) {
    std::string prefix = "before";
    EXPECT_EQ(client().composeSlpHeaderPart(prefix), 0);
    EXPECT_TRUE(prefix.starts_with("before\r\n--\r\nContent-Type: text/xml"));
}

TEST_F(HttpClientTest, reportsNothingButTheEndOfASuccessfulExchange) {
    std::vector<std::string> chunks;
    const auto request = addRequest(1);
    fake_curl::addScript([](Transfer& transfer) {
        std::string body;
        EXPECT_TRUE(transfer.readAll(body));
        transfer.respond(kHead, {answerTo(1)});
        return CURLE_OK;
    });
    runExchange();
    EXPECT_EQ(request->state(), RequestState::AllPartsReceived);
    ASSERT_TRUE(iterateUntil([&] { return owner_.log.size() == 2; }));
    EXPECT_THAT(owner_.log, ElementsAre("request data 1:1", "done 1"));
}

TEST_F(HttpClientTest, reportsATransportFailureWithTheUnfinishedRequestsInQueueOrder) {
    for (const std::uint32_t id : {12U, 7U, 9U}) {
        addRequest(id, id != 7);
    }
    fake_curl::addScript(failWith(CURLE_COULDNT_CONNECT));
    runExchange();
    EXPECT_THAT(owner_.log, ElementsAre("failed 43 [Couldn't connect to server] [1:9 1:12 1:7]"));
}

TEST_F(HttpClientTest, leavesDeliveredRequestsOutOfTheReport) {
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

TEST_F(HttpClientTest, reportsAFailureAlsoWhenNoRequestIsUnfinished) {
    const auto first = addRequest(1);
    fake_curl::addScript([&](Transfer&) {
        first->setState(RequestState::Delivered);
        return CURLE_RECV_ERROR;
    });
    runExchange();
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [Failure when receiving data from the peer] []"));
}

TEST_F(HttpClientTest, reportsTheParsersErrorOfASuccessfulTransfer) {
    runExchange([](Transfer& transfer) {
        transfer.respond("HTTP/1.1 200 OK\r\nContent-Type: text/html\r\n\r\n", {"<html/>"});
        return CURLE_OK;
    });
    EXPECT_THAT(owner_.log, ElementsAre("failed 1003 [missing MIME parts] [1:1]"));
}

TEST_F(HttpClientTest, reportsAnHttpStatusThatACompleteAnswerCarries) {
    runExchange([](Transfer& transfer) {
        const std::string head(kHead);
        transfer.respond("HTTP/1.1 503 Busy" + head.substr(head.find("\r\n")), {answerTo(1)});
        return CURLE_OK;
    });
    ASSERT_THAT(owner_.log, SizeIs(1));
    EXPECT_TRUE(owner_.log[0].starts_with("failed 55 [Busy\r\nContent-Type: "));
    EXPECT_TRUE(owner_.log[0].ends_with("] [1:1]"));
}

TEST_F(HttpClientTest, prefersTheTransportFailureToTheParsersError) {
    runExchange([](Transfer& transfer) {
        transfer.respond("HTTP/1.1 500 No\r\n\r\n", {});
        return CURLE_PARTIAL_FILE;
    });
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [" + std::string(curl_easy_strerror(CURLE_PARTIAL_FILE)) +
                            "] [1:1]"));
}

TEST_F(HttpClientTest, completesAPartThatAFailedTransferCutsOff) {
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

TEST_F(HttpClientTest, doesNotCarryAnErrorTextIntoTheNextExchange) {
    runExchange(failWith(CURLE_COULDNT_CONNECT));
    EXPECT_NE(client().errorText(), "");
    runExchange([](Transfer& transfer) {
        std::string body;
        EXPECT_TRUE(transfer.readAll(body));
        transfer.respond(kHead, {answerTo(1)});
        return CURLE_OK;
    });
    EXPECT_EQ(client().errorText(), "");
}

TEST_F(HttpClientTest, runsFromBeginToItsLastStep) {
    EXPECT_FALSE(client().isTransferRunning());
    addRequest(1);
    EXPECT_FALSE(client().isTransferRunning());
    fake_curl::addScript([this](Transfer&) {
        EXPECT_TRUE(client().isTransferRunning());
        return CURLE_OK;
    });
    client().beginExchange();
    EXPECT_TRUE(client().isTransferRunning());
    client().runExchange();
    EXPECT_FALSE(client().isTransferRunning());
}

TEST_F(HttpClientTest, forgetsTheQueueWithTheExchange) {
    std::weak_ptr<RequestData> request = addRequest(1);
    fake_curl::addScript(succeed);
    runExchange();
    EXPECT_TRUE(request.expired());
    runExchange();
    EXPECT_EQ(fake_curl::initCount(), 1);
}

TEST_F(HttpClientTest, onlyAnnouncesTheEndOfAnExchangeWithoutRequests) {
    runExchange();
    EXPECT_EQ(fake_curl::initCount(), 0);
    EXPECT_FALSE(client().isTransferRunning());
    ASSERT_TRUE(iterateUntil([&] { return !owner_.log.empty(); }));
    EXPECT_THAT(owner_.log, ElementsAre("done 1"));
}

TEST_F(HttpClientTest, announcesTheEndFiftyMillisecondsLater) {
    const gint64 start = g_get_monotonic_time();
    runExchange();
    drainMainContext();
    ASSERT_TRUE(iterateUntil([&] { return !owner_.log.empty(); }));
    EXPECT_GE(g_get_monotonic_time() - start, 50000);
}

TEST_F(HttpClientTest, numbersItsExchanges) {
    EXPECT_EQ(client().beginExchange(), 1U);
    (void)client().abandonExchange();
    EXPECT_EQ(client().beginExchange(), 2U);
    client().runExchange();
    EXPECT_EQ(client().beginExchange(), 3U);
    client().runExchange();
    ASSERT_TRUE(iterateUntil([&] { return owner_.log.size() == 2; }));
    EXPECT_THAT(owner_.log, ElementsAre("done 2", "done 3"));
}

TEST_F(HttpClientTest, announcesNothingWhenItIsGone) {
    runExchange();
    client_.reset();
    passTime(milliseconds(60));
    EXPECT_THAT(owner_.log, IsEmpty());
}

TEST_F(HttpClientTest, putsAbandonedRequestsBackToTheirBeginning) {
    std::weak_ptr<RequestData> watched;
    const auto request = addRequest(1);
    EXPECT_EQ(request->state(), RequestState::Queued);
    client().beginExchange();
    (void)client().abandonExchange();
    EXPECT_EQ(request->state(), RequestState::Created);
    EXPECT_EQ(request.use_count(), 1);
    EXPECT_FALSE(client().isTransferRunning());
}

// -- queue --------------------------------------------------------------------------------------

std::string keysInQueueOrder(RecordingOwner& owner) {
    const std::string& report = owner.log.at(0);
    const std::size_t begin = report.rfind('[') + 1;
    return report.substr(begin, report.size() - begin - 1);
}

TEST_F(HttpClientTest, queuesPreparedRequestsBeforeAttachedOnes) {
    addRequest(7, false);
    addRequest(5, true);
    runExchange();
    EXPECT_EQ(keysInQueueOrder(owner_), "1:5 1:7");
}

TEST_F(HttpClientTest, queuesAPreparedRequestBeforeAnAttachedOneOfLowerId) {
    addRequest(5, false);
    addRequest(7, true);
    runExchange();
    EXPECT_EQ(keysInQueueOrder(owner_), "1:7 1:5");
}

TEST_F(HttpClientTest, queuesRequestsOfAKindByAscendingId) {
    addRequest(9, false);
    addRequest(4, false);
    addRequest(8, true);
    addRequest(10, true);
    addRequest(2, true);
    runExchange();
    EXPECT_EQ(keysInQueueOrder(owner_), "1:2 1:8 1:10 1:4 1:9");
}

TEST_F(HttpClientTest, marksAQueuedRequest) {
    EXPECT_EQ(addRequest(1)->state(), RequestState::Queued);
}

// -- cancellation -------------------------------------------------------------------------------

TEST_F(HttpClientTest, abortsAnUploadThatWasCancelledBeforeItsFirstStep) {
    addRequest(1);
    fake_curl::addScript([](Transfer& transfer) {
        EXPECT_TRUE(transfer.read().aborted);
        return CURLE_ABORTED_BY_CALLBACK;
    });
    client().beginExchange();
    client().cancelTransfer();
    client().runExchange();
    EXPECT_THAT(owner_.log,
                ElementsAre("failed 43 [Operation was aborted by an application callback] [1:1]"));
}

TEST_F(HttpClientTest, forgetsACancellationOfAnEarlierExchange) {
    client().cancelTransfer();
    runExchange([](Transfer& transfer) {
        EXPECT_FALSE(transfer.read().aborted);
        return CURLE_OK;
    });
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

TEST_F(HttpClientTest, endsInAFailureReportWhenMemoryRunsOutInTheResponsesHead) {
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
        EXPECT_FALSE(client().isTransferRunning());
        EXPECT_EQ(fake_curl::liveHandles(), 0);
    }
    EXPECT_GT(failures, 0);
}

TEST_F(HttpClientTest, endsInAFailureReportWhenMemoryRunsOutInTheResponsesBody) {
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
        EXPECT_FALSE(client().isTransferRunning());
        EXPECT_EQ(fake_curl::liveHandles(), 0);
    }
    EXPECT_GT(failures, 0);
}

TEST_F(HttpClientTest, endsInAFailureReportWhenMemoryRunsOutInTheUpload) {
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

TEST_F(HttpClientTest, reports2001WhenMemoryRunsOutBeforeTheTransfer) {
    addRequest(1);
    client().beginExchange();
    {
        const failing_memory::FailOnce fail;
        client().runExchange();
        EXPECT_TRUE(fail.hasFailed());
    }
    EXPECT_FALSE(client().isTransferRunning());
    ASSERT_TRUE(iterateUntil([&] { return owner_.log.size() == 2; }));
    EXPECT_THAT(owner_.log, ElementsAre("failed 2001 [std::bad_alloc] [1:1]", "done 1"));
}

TEST_F(HttpClientTest, reports2001WhenThePlatformThrowsSomethingOfItsOwn) {
    owner_.proxyFault = 7;
    addRequest(1);
    runExchange();
    ASSERT_TRUE(iterateUntil([&] { return owner_.log.size() == 2; }));
    EXPECT_THAT(owner_.log, ElementsAre("failed 2001 [] [1:1]", "done 1"));
    EXPECT_EQ(fake_curl::liveHandles(), 0);
}

// -- hooks --------------------------------------------------------------------------------------

class SocketOptionTest : public testing::Test {
protected:
    SocketOptionTest() : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {}
    void TearDown() override { ::close(socket_); }

    int segmentSize() const {
        int size = 0;
        socklen_t length = sizeof size;
        EXPECT_EQ(getsockopt(socket_, IPPROTO_TCP, TCP_MAXSEG, &size, &length), 0);
        return size;
    }

    int socket_;
};

TEST_F(SocketOptionTest, clampsTheSegmentSizeOfTheConnection) {
    ASSERT_NE(segmentSize(), 1200);
    EXPECT_EQ(HttpClient::socketOptionCallback(nullptr, socket_, CURLSOCKTYPE_IPCXN),
              CURL_SOCKOPT_OK);
    EXPECT_EQ(segmentSize(), 1200);
}

TEST_F(SocketOptionTest, leavesSocketsOfAnotherPurposeAlone) {
    const int before = segmentSize();
    EXPECT_EQ(HttpClient::socketOptionCallback(nullptr, socket_, CURLSOCKTYPE_ACCEPT),
              CURL_SOCKOPT_OK);
    EXPECT_EQ(segmentSize(), before);
}

TEST_F(SocketOptionTest, goesOnWhenTheSystemRefuses) {
    EXPECT_EQ(HttpClient::socketOptionCallback(nullptr, -1, CURLSOCKTYPE_IPCXN), CURL_SOCKOPT_OK);
}

TEST(SslContextTest, hookRestrictsTheCipherList) {
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(
        SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    ASSERT_TRUE(context);
    EXPECT_EQ(HttpClient::sslContextCallback(nullptr, context.get(), nullptr), CURLE_OK);
    std::vector<std::string> ciphers; // those of TLS 1.3 are not concerned
    STACK_OF(SSL_CIPHER)* list = SSL_CTX_get_ciphers(context.get());
    for (int i = 0; i < sk_SSL_CIPHER_num(list); ++i) {
        const SSL_CIPHER* cipher = sk_SSL_CIPHER_value(list, i);
        if (SSL_CIPHER_get_version(cipher) != std::string("TLSv1.3")) {
            ciphers.emplace_back(SSL_CIPHER_get_name(cipher));
        }
    }
    EXPECT_THAT(ciphers, ElementsAre("AES256-SHA"));
}

} // namespace
} // namespace orvexd::test
