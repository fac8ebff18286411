#include "http/HttpClient.h"

#include "config/ConfHandler.h"
#include "fakes/FailingMemory.h"
#include "fakes/FakeCurl.h"
#include "fakes/FakePlatform.h"
#include "fakes/MainContext.h"
#include "http/RecordingOwner.h"
#include "http/RequestBody.h"
#include "http/TransferOptions.h"
#include "slp/SlpResponseParser.h"
#include "support/Deployment.h"

#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <openssl/ssl.h>
#include <optional>
#include <string>
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
        handle_.reset();
        client_.reset();
        EXPECT_EQ(fake_curl::globalBalance(), globalBalance_);
        EXPECT_EQ(fake_curl::liveHandles(), 0);
        HttpClient::getConfiguration().clear();
        ConfHandler::confItems().clear();
    }

    HttpClient& client() { return *client_; }

    /// performTransfer on an empty body.
    int performTransfer(fake_curl::Script script, const std::vector<std::string>& lines = {}) {
        fake_curl::addScript(std::move(script));
        const RequestBody::Queue queue;
        DataSignal signal;
        RequestBody body(queue, "limit", "prefix", signal, owner_, HttpClient::getConfiguration());
        SlpResponseParser parser(queue);
        return client().performTransfer(lines, body, parser);
    }

    int setupHandle() { return HttpClient::setupHandle(handle_); }

    static std::vector<NamedOption> options() {
        std::vector<NamedOption> all;
        for (const auto& option : fake_curl::options()) {
            all.push_back({option.id, option.value});
        }
        return all;
    }

    int globalBalance_ = 0;
    EasyHandle handle_;
    RecordingOwner owner_;
    std::optional<HttpClient> client_;
};

/// Options that are set with the handle, before those of the transfer.
constexpr int kHandleOptions = 12;

CURLcode succeed(Transfer& /*transfer*/) {
    return CURLE_OK;
}

fake_curl::Script failWith(CURLcode code) {
    return [code](Transfer&) { return code; };
}

// -- life and parameters ------------------------------------------------------------------------

TEST_F(HttpClientTest, InitialisesLibcurlWithTlsAndCleansUp) {
    EXPECT_EQ(fake_curl::globalBalance(), globalBalance_ + 1);
    EXPECT_EQ(fake_curl::globalFlags(), CURL_GLOBAL_SSL);
    client_.reset();
    EXPECT_EQ(fake_curl::globalBalance(), globalBalance_);
}

TEST_F(HttpClientTest, CopiesTheFourTimeoutsThatAreInTheStoreWhenItIsMade) {
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

TEST_F(HttpClientTest, KeepsAParameterWhenTheStoreHasAnEmptyValue) {
    client_.reset();
    HttpClient::setParameter("orvexd/connect_timeout", "7");
    ConfHandler::setParameter("orvexd/connect_timeout", "");
    client_.emplace(owner_);
    EXPECT_EQ(HttpClient::getConfiguration().get("orvexd/connect_timeout"), "7");
}

TEST_F(HttpClientTest, DoesNotSeeValuesThatAreStoredAfterItWasMade) {
    ConfHandler::setParameter("orvexd/connect_timeout", "1");
    ConfHandler::setParameter("orvexd/transfer_timeout", "2");
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_CONNECTTIMEOUT), "30");
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_TIMEOUT), "60");
}

TEST_F(HttpClientTest, ReplacesAParameterThatIsSetAgain) {
    HttpClient::setParameter("key", "one");
    HttpClient::setParameter("key", "two");
    EXPECT_EQ(HttpClient::getConfiguration().get("key"), "two");
    HttpClient::setParameter("key", "");
    EXPECT_EQ(HttpClient::getConfiguration().get("key", "default"), "");
}

TEST_F(HttpClientTest, SetsAnEmptyParameterOnlyUnconditionally) {
    HttpClient::setParameterIfSet("key", "one");
    HttpClient::setParameterIfSet("key", "");
    EXPECT_EQ(HttpClient::getConfiguration().get("key"), "one");
}

TEST_F(HttpClientTest, SharesTheParameterMapAmongAllClients) {
    EXPECT_EQ(&HttpClient::getConfiguration(), &HttpClient::getConfiguration());
}

// -- options ------------------------------------------------------------------------------------

TEST_F(HttpClientTest, SetsTheHandlesOptionsInTheirOrder) {
    fake_platform::change([](auto& state) { state.preinstalledFilesPath = "/keys"; });
    EXPECT_EQ(setupHandle(), 0);
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
        {CURLOPT_QUICK_EXIT, "1"},
    };
    EXPECT_EQ(options(), expected);
}

TEST_F(HttpClientTest, SetsTheTransfersOptionsInTheirOrder) {
    owner_.proxy = "proxy.example:8080";
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
    const std::vector<NamedOption> all = options();
    EXPECT_EQ(std::vector<NamedOption>(all.begin() + kHandleOptions, all.end()), expected);
}

TEST_F(HttpClientTest, SetsUpTheHandleBeforeTheTransfer) {
    performTransfer(succeed);
    ASSERT_THAT(options(), SizeIs(kHandleOptions + 15));
    EXPECT_EQ(options().front().id, CURLOPT_NOSIGNAL);
    EXPECT_EQ(options()[kHandleOptions].id, CURLOPT_HTTPHEADER);
}

TEST_F(HttpClientTest, InstallsNoTlsHook) {
    performTransfer(succeed);
    EXPECT_THAT(fake_curl::options(),
                Each(Field(&fake_curl::Option::id, Ne(CURLOPT_SSL_CTX_FUNCTION))));
    EXPECT_THAT(fake_curl::options(),
                Each(Field(&fake_curl::Option::id, Ne(CURLOPT_SSL_CIPHER_LIST))));
}

TEST_F(HttpClientTest, TakesThePassphraseFromTheHandleWhenTheUploadBegins) {
    performTransfer([](fake_curl::Transfer& transfer) {
        EXPECT_EQ(fake_curl::lastOption(CURLOPT_KEYPASSWD), KeyPassphrase().text());
        transfer.read();
        EXPECT_EQ(fake_curl::lastOption(CURLOPT_KEYPASSWD), "null");
        return CURLE_OK;
    });
}

TEST_F(HttpClientTest, GivesEveryHandleThePassphraseAnew) {
    for (int i = 0; i < 2; ++i) {
        performTransfer([](fake_curl::Transfer& transfer) {
            EXPECT_EQ(fake_curl::lastOption(CURLOPT_KEYPASSWD), KeyPassphrase().text());
            transfer.read();
            return CURLE_OK;
        });
    }
}

TEST_F(HttpClientTest, UsesNoProxyWhenThePlatformNamesNone) {
    performTransfer(succeed);
    EXPECT_EQ(fake_curl::lastOption(CURLOPT_PROXY), "");
    EXPECT_THAT(options(), testing::Contains(NamedOption{CURLOPT_PROXY, ""}));
}

TEST_F(HttpClientTest, PostsToAnHttpsServerWithAnExplicitPort) {
    EXPECT_THAT(deployment::kServerUrl, testing::MatchesRegex("https://[^/:]+:[0-9]+(/.*)?"));
}

TEST_F(HttpClientTest, LeavesAHandleThatExistsAsItIs) {
    EXPECT_EQ(setupHandle(), 0);
    const auto before = options();
    EXPECT_EQ(setupHandle(), 0);
    EXPECT_EQ(fake_curl::initCount(), 1);
    EXPECT_EQ(options(), before);
}

TEST_F(HttpClientTest, Reports57WhenLibcurlHasNoHandleToGive) {
    fake_curl::failInit(true);
    EXPECT_EQ(setupHandle(), 57);
    EXPECT_THAT(options(), IsEmpty());
}

struct TimeoutCase {
    const char* name;
    const char* value;
    const char* seconds;
};

class HttpClientTimeoutTest : public HttpClientTest,
                              public testing::WithParamInterface<TimeoutCase> {};

TEST_P(HttpClientTimeoutTest, IsReadAsADecimalNumber) {
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

TEST_F(HttpClientTest, ConnectsAfreshOnceAfterEachRequestForIt) {
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

TEST_F(HttpClientTest, UsesAHandleForOneTransferOnly) {
    EXPECT_EQ(performTransfer([](Transfer&) {
                  EXPECT_EQ(fake_curl::liveHandles(), 1);
                  return CURLE_OK;
              }),
              0);
    EXPECT_EQ(fake_curl::liveHandles(), 0);
    EXPECT_EQ(performTransfer(succeed), 0);
    EXPECT_EQ(fake_curl::initCount(), 2);
}

TEST_F(HttpClientTest, LeavesNoHandleBehindAFailedTransfer) {
    EXPECT_EQ(performTransfer(failWith(CURLE_OPERATION_TIMEDOUT)), 43);
    EXPECT_EQ(fake_curl::liveHandles(), 0);
    EXPECT_EQ(performTransfer(succeed), 0);
    EXPECT_EQ(fake_curl::initCount(), 2);
}

TEST_F(HttpClientTest, Reports43AndLibcurlsTextForEachOfItsFailures) {
    for (const CURLcode code :
         {CURLE_UNSUPPORTED_PROTOCOL, CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_RESOLVE_HOST,
          CURLE_COULDNT_CONNECT, CURLE_WEIRD_SERVER_REPLY, CURLE_WRITE_ERROR,
          CURLE_OPERATION_TIMEDOUT, CURLE_SSL_CONNECT_ERROR, CURLE_ABORTED_BY_CALLBACK,
          CURLE_SSL_CERTPROBLEM, CURLE_PEER_FAILED_VERIFICATION, CURLE_RECV_ERROR}) {
        EXPECT_EQ(performTransfer(failWith(code)), 43);
        EXPECT_EQ(client().errorText(), curl_easy_strerror(code));
    }
}

TEST_F(HttpClientTest, Reports43WhenThereIsNoHandle) {
    fake_curl::failInit(true);
    EXPECT_EQ(performTransfer(succeed), 43);
    EXPECT_EQ(client().errorText(), curl_easy_strerror(CURLE_BAD_FUNCTION_ARGUMENT));
    EXPECT_EQ(fake_curl::liveHandles(), 0);
}

// -- hooks --------------------------------------------------------------------------------------

TEST(SslContext, HookRestrictsTheCipherList) {
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
