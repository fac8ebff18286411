#include "http/HttpClient.h"

#include "config/ConfHandler.h"
#include "core/RequestKey.h"
#include "http/Boundary.h"
#include "http/HandleOptions.h"
#include "http/RequestBody.h"
#include "slp/SlpComposer.h"
#include "support/Deployment.h"
#include "support/FailureCode.h"
#include "support/FreeMemory.h"
#include "support/XmlHandles.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <trilba/core/Directory.h>
#include <utility>

namespace orvexd {

namespace {

constexpr const char* kConnectTimeout = "orvexd/connect_timeout";
constexpr const char* kTransferTimeout = "orvexd/transfer_timeout";

/// The main loop hears of an exchange's end this much later.
constexpr std::chrono::milliseconds kEndDelay(50);

/// A time-out of the parameter map; a number that does not fit gives 0, libcurl's own default.
long timeoutSeconds(const char* key, const char* fallback) {
    const std::string value = HttpClient::getConfiguration().get(key, fallback);
    errno = 0;
    const long seconds = std::strtol(value.c_str(), nullptr, 10);
    return errno != 0 ? 0 : seconds;
}

std::vector<std::string> headerLinesFor(const std::string& boundary) {
    return {"Content-Type: multipart/related; type=\"text/xml\"; boundary=\"" + boundary +
                "\"; start=\"slpHeaderPart\"",
            "Transfer-Encoding: chunked", "Expect:"}; // no 100-continue round trip
}

/// Ends a handle's life with the transfer, before the list and the buffer that it refers to.
class HandleScope {
public:
    explicit HandleScope(EasyHandle& handle) noexcept : handle_(handle) {}
    ~HandleScope() { handle_.reset(); }
    HandleScope(const HandleScope&) = delete;
    HandleScope& operator=(const HandleScope&) = delete;
    HandleScope(HandleScope&&) = delete;
    HandleScope& operator=(HandleScope&&) = delete;

private:
    EasyHandle& handle_;
};

} // namespace

/// Tells the owner on the main loop that an exchange has ended.
struct HttpClient::ExchangeDone : MainLoopRecord {
    ExchangeDone(const HttpClient& client, std::uint64_t exchange)
        : owner(client.owner_), alive(client.lifetime_.watch()), number(exchange) {}

    void run() override {
        if (!alive.expired()) {
            owner.onExchangeDone(number);
        }
    }

    IExchangeOwner& owner;
    Lifetime::Watch alive;
    std::uint64_t number;
};

/// What the read callback works on.
struct HttpClient::Upload {
    RequestBody& body;
    CURL* handle = nullptr;
    bool begun = false;
};

HttpClient::HttpClient(IExchangeOwner& owner) : owner_(owner) {
    curl_global_init(CURL_GLOBAL_SSL);
    for (const char* key : {"orvexd/wait_timeout/fingerprint", "orvexd/wait_timeout/",
                            kConnectTimeout, kTransferTimeout}) {
        setParameterIfSet(key, ConfHandler::get(key));
    }
}

HttpClient::~HttpClient() {
    handle_.reset();
    curl_global_cleanup();
}

Parameters& HttpClient::getConfiguration() {
    static Parameters m_params; // NOLINT(readability-identifier-naming)
    return m_params;
}

void HttpClient::setParameter(const std::string& key, const std::string& value) {
    getConfiguration().set(key, value);
}

void HttpClient::setParameterIfSet(const std::string& key, const std::string& value) {
    if (!value.empty()) {
        setParameter(key, value);
    }
}

bool HttpClient::isTransferRunning() const {
    const Lock guard(stateMutex_);
    return transferRunning_;
}

void HttpClient::setTransferRunning(bool running) {
    const Lock guard(stateMutex_);
    transferRunning_ = running;
}

// -- the exchange --------------------------------------------------------------------------------

void HttpClient::addPart(const std::shared_ptr<RequestData>& request) {
    exchange_.queue.insert(exchange_.queue.begin() + request->queuePosition(exchange_.queue),
                           request);
    request->setState(RequestState::Queued);
}

std::uint64_t HttpClient::beginExchange() {
    exchange_.number = ++lastExchange_;
    // Here, not on the worker: a cancellation that comes before the worker's first step must not be
    // lost, and from this moment on nobody else may start an exchange.
    dataSignal_.reset();
    setTransferRunning(true);
    return exchange_.number;
}

std::vector<std::shared_ptr<RequestData>> HttpClient::abandonExchange() {
    for (const auto& request : exchange_.queue) {
        request->setState(RequestState::Created);
    }
    setTransferRunning(false);
    return std::exchange(exchange_.queue, {});
}

gpointer HttpClient::threadFunc(gpointer client) noexcept {
    auto& self = *static_cast<HttpClient*>(client);
    silenceXmlErrors();
    self.runExchange();
    returnFreeMemory(); // what this exchange has needed the next one may not need
    return nullptr;
}

void HttpClient::runExchange() {
    if (!exchange_.queue.empty()) {
        errorText_.clear();
        int code = failure::kNone;
        try {
            code = transferQueue();
        } catch (const std::exception& error) { // no memory, most likely
            code = failure::kExchangeFailed;
            errorText_ = error.what();
        } catch (...) { // the platform library's own
            code = failure::kExchangeFailed;
            errorText_.clear();
        }
        if (code != failure::kNone) {
            failExchange(code);
        }
    }
    endExchange();
}

int HttpClient::transferQueue() {
    exchange_.boundary = generateBoundary();
    std::string bodyPrefix;
    composeSlpHeaderPart(bodyPrefix);
    RequestBody body(exchange_.queue, exchange_.boundary, std::move(bodyPrefix), dataSignal_,
                     owner_, getConfiguration());
    SlpResponseParser parser(exchange_.queue);
    const int code = performTransfer(headerLinesFor(exchange_.boundary), body, parser);
    if (code == failure::kNone && parser.hasError()) {
        errorText_ = parser.errorText();
        return parser.errorCode();
    }
    return code;
}

void HttpClient::failExchange(int code) {
    owner_.onExchangeFailed(static_cast<std::uint32_t>(code), errorText_, unfinishedKeys());
}

std::string HttpClient::unfinishedKeys() const {
    std::string keys;
    for (const auto& request : exchange_.queue) {
        if (request->state() != RequestState::Delivered) {
            appendKey(keys, requestKey(request->connectionId(), request->requestId()));
        }
    }
    return keys;
}

void HttpClient::endExchange() {
    exchange_.queue.clear();
    postToMainLoop(kEndDelay, std::make_unique<ExchangeDone>(*this, exchange_.number));
    setTransferRunning(false);
}

int HttpClient::composeSlpHeaderPart(std::string& bodyPrefix) {
    return orvexd::composeSlpHeaderPart(exchange_.boundary, exchange_.queue, getConfiguration(),
                                        bodyPrefix);
}

// -- libcurl -------------------------------------------------------------------------------------

int HttpClient::setupHandle() {
    if (handle_) {
        return failure::kNone;
    }
    handle_.reset(curl_easy_init());
    if (!handle_) {
        return failure::kNotAccepting;
    }
    std::string files;
    trilba::core::Directory::getPreinstalledFilesPath(files);
    setHandleOptions(handle_.get(), files);
    return failure::kNone;
}

int HttpClient::performTransfer(const std::vector<std::string>& headerLines, RequestBody& body,
                                SlpResponseParser& parser) {
    HeaderList headers; // libcurl reads the list until the transfer has ended
    for (const std::string& line : headerLines) {
        headers.append(line);
    }
    std::array<char, CURL_ERROR_SIZE> errorBuffer{};
    (void)setupHandle(); // without a handle libcurl itself reports the failure below
    const HandleScope scope(handle_);
    setTransferOptions(headers, errorBuffer.data());
    Upload upload{body, handle_.get()};
    setCallbacks(upload, parser);
    const CURLcode result = curl_easy_perform(handle_.get());
    parser.finish();
    long status = 0;
    curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status); // statuses are the parser's
    if (result == CURLE_OK) {
        return failure::kNone;
    }
    errorText_ = curl_easy_strerror(result);
    diagnostic_ = "error response from curl: " + std::to_string(result);
    return failure::kTransport;
}

void HttpClient::setTransferOptions(const HeaderList& headers, char* errorBuffer) {
    CURL* handle = handle_.get();
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(handle, CURLOPT_HEADER, 1L); // the parser reads the response head itself
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, timeoutSeconds(kConnectTimeout, "30"));
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, timeoutSeconds(kTransferTimeout, "60"));
}

void HttpClient::setCallbacks(Upload& upload, SlpResponseParser& parser) {
    CURL* handle = handle_.get();
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, &HttpClient::readBody);
    curl_easy_setopt(handle, CURLOPT_READDATA, &upload);
    curl_easy_setopt(handle, CURLOPT_PROXY, owner_.proxyForServer().c_str());
    curl_easy_setopt(handle, CURLOPT_NOPROXY, ""); // the platform decides, not the environment
    curl_easy_setopt(handle, CURLOPT_URL, deployment::kServerUrl);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &HttpClient::writeResponse);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &parser);
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, &HttpClient::socketOptionCallback);
    curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT,
                     freshConnectRequested_.exchange(false) ? 1L : 0L);
}

std::size_t HttpClient::writeResponse(char* data, std::size_t size, std::size_t count,
                                      void* parser) noexcept {
    try {
        return static_cast<SlpResponseParser*>(parser)->feed({data, size * count});
    } catch (...) {
        return 0; // libcurl ends the transfer with a write error
    }
}

std::size_t HttpClient::readBody(char* buffer, std::size_t size, std::size_t count,
                                 void* upload) noexcept {
    auto& self = *static_cast<Upload*>(upload);
    if (!std::exchange(self.begun, true)) {
        // The connection stands, so the key has been read: libcurl need not keep its copy of the
        // pass phrase for as long as clients deliver.
        curl_easy_setopt(self.handle, CURLOPT_KEYPASSWD, nullptr);
    }
    try {
        return self.body.readBody({buffer, size * count});
    } catch (...) {
        return CURL_READFUNC_ABORT;
    }
}

int HttpClient::socketOptionCallback(void* /*client*/, curl_socket_t socket,
                                     curlsocktype purpose) noexcept {
    if (purpose == CURLSOCKTYPE_IPCXN) {
        const int segmentSize = 1200;
        (void)setsockopt(socket, IPPROTO_TCP, TCP_MAXSEG, &segmentSize, sizeof segmentSize);
    }
    return CURL_SOCKOPT_OK;
}

CURLcode HttpClient::sslContextCallback(CURL* /*handle*/, void* sslContext,
                                        void* /*userData*/) noexcept {
    (void)SSL_CTX_set_cipher_list(static_cast<SSL_CTX*>(sslContext), "AES256-SHA");
    return CURLE_OK;
}

} // namespace orvexd
