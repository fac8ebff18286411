#include "http/HttpClient.h"

#include "config/ConfHandler.h"
#include "config/MapWrapper.h"
#include "http/IExchangeOwner.h"
#include "http/ProcessorLimit.h"
#include "http/RequestBody.h"
#include "http/TransferOptions.h"
#include "protocol/Codes.h"
#include "slp/SlpResponseParser.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <openssl/ssl.h>
#include <span>
#include <trilba/core/Directory.h>
#include <utility>

namespace orvexd {

namespace {

constexpr const char* kConnectTimeout = "orvexd/connect_timeout";
constexpr const char* kTransferTimeout = "orvexd/transfer_timeout";

/// When a transfer that begins now reaches its time-out, on g_get_monotonic_time's clock. libcurl
/// has no time-out for a number that it refuses, and for 0.
gint64 transferDeadline(long seconds) {
    constexpr long kLongest = std::numeric_limits<int>::max() / 1000;
    const bool isLimited = seconds > 0 && seconds <= kLongest;
    return isLimited ? g_get_monotonic_time() + seconds * G_USEC_PER_SEC
                     : std::numeric_limits<gint64>::max();
}

/// A time-out of the parameter map; a number that does not fit gives 0, libcurl's own default.
long timeoutSeconds(const char* key, const char* fallback) {
    const Number seconds = readNumber(HttpClient::getConfiguration().get(key, fallback));
    return seconds.fits ? seconds.value : 0;
}

} // namespace

/// What the callbacks of one transfer work on.
struct HttpClient::Transfer {
    RequestBody& body;
    SlpResponseParser& parser;
    CURL* handle = nullptr;
    bool begun = false;
    std::uint64_t moved = 0; ///< bytes in both directions
    unsigned pieces = 0;     ///< of the response
    ProcessorLimit processorLimit = ProcessorLimit();
};

HttpClient::HttpClient(IExchangeOwner& owner) : owner_(owner) {
    curl_global_init(CURL_GLOBAL_SSL);
    for (const char* key : {"orvexd/wait_timeout/fingerprint", "orvexd/wait_timeout/",
                            kConnectTimeout, kTransferTimeout}) {
        setParameterIfSet(key, ConfHandler::get(key));
    }
}

HttpClient::~HttpClient() {
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

int HttpClient::setupHandle(EasyHandle& handle) {
    if (handle) {
        return failure::kNone;
    }
    handle.reset(curl_easy_init());
    if (!handle) {
        return failure::kNotAccepting;
    }
    std::string files;
    trilba::core::Directory::getPreinstalledFilesPath(files);
    TransferOptions::setIdentity(handle.get(), files);
    return failure::kNone;
}

int HttpClient::performTransfer(const std::vector<std::string>& headerLines, RequestBody& body,
                                SlpResponseParser& parser) {
    HeaderList headers; // declared before the handle, which reads the list until it ends
    for (const std::string& line : headerLines) {
        headers.append(line);
    }
    std::array<char, CURL_ERROR_SIZE> errorBuffer{};
    EasyHandle handle;
    (void)setupHandle(handle); // without a handle libcurl itself reports the failure below
    setTransferOptions(handle.get(), headers, errorBuffer.data());
    Transfer transfer{body, parser, handle.get()};
    setCallbacks(handle.get(), transfer);
    parser.setPatience(
        {transferDeadline(timeoutSeconds(kTransferTimeout, TransferOptions::kTransferTimeout)),
         [this] { owner_.postMemoryShort(); }});
    CURLcode result = curl_easy_perform(handle.get());
    parser.finish(); // may wait for room, too
    if (parser.hasStalled()) {
        result = CURLE_OPERATION_TIMEDOUT; // libcurl may not have looked at its clock any more
    }
    long status = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status); // the parser judges it
    errorText_ = result == CURLE_OK ? "" : curl_easy_strerror(result);
    return result == CURLE_OK ? failure::kNone : failure::kTransport;
}

void HttpClient::setTransferOptions(CURL* handle, const HeaderList& headers, char* errorBuffer) {
    TransferOptions::setMessage(handle, headers.get()); // the parser reads the response head itself
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorBuffer);
    TransferOptions::setTimeouts(
        handle, timeoutSeconds(kConnectTimeout, TransferOptions::kConnectTimeout),
        timeoutSeconds(kTransferTimeout, TransferOptions::kTransferTimeout));
}

void HttpClient::setCallbacks(CURL* handle, Transfer& transfer) {
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, &HttpClient::readBody);
    curl_easy_setopt(handle, CURLOPT_READDATA, &transfer);
    TransferOptions::setRoad(handle, owner_.proxyForServer());
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &HttpClient::writeResponse);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &transfer);
    TransferOptions::setSocket(handle);
    curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT,
                     freshConnectRequested_.exchange(false) ? 1L : 0L);
}

std::size_t HttpClient::writeResponse(char* data, std::size_t size, std::size_t count,
                                      void* transfer) noexcept {
    constexpr unsigned kPiecesPerLook = 64; // a look at the clock costs more than a small piece
    auto& self = *static_cast<Transfer*>(transfer);
    SlpResponseParser& parser = self.parser;
    try {
        const std::size_t taken = parser.feed({data, size * count});
        self.moved += taken;
        if (++self.pieces % kPiecesPerLook == 0 && self.processorLimit.isExceeded(self.moved)) {
            parser.giveUp("faulty MIME data");
        }
        return parser.isGivenUp() || parser.hasStalled() ? 0 : taken;
    } catch (...) {
        return 0; // libcurl ends the transfer with a write error
    }
}

std::size_t HttpClient::readBody(char* buffer, std::size_t size, std::size_t count,
                                 void* transfer) noexcept {
    auto& self = *static_cast<Transfer*>(transfer);
    if (!std::exchange(self.begun, true)) {
        // The connection stands, so the key has been read: libcurl need not keep its copy of the
        // pass phrase for as long as clients deliver.
        curl_easy_setopt(self.handle, CURLOPT_KEYPASSWD, nullptr);
    }
    try {
        const std::size_t read = self.body.readBody({buffer, size * count});
        self.moved += read == CURL_READFUNC_ABORT ? 0 : read;
        return read;
    } catch (...) {
        return CURL_READFUNC_ABORT;
    }
}

CURLcode HttpClient::sslContextCallback(CURL* /*handle*/, void* sslContext,
                                        void* /*userData*/) noexcept {
    (void)SSL_CTX_set_cipher_list(static_cast<SSL_CTX*>(sslContext), "AES256-SHA");
    return CURLE_OK;
}

std::string HttpClient::hexDump(std::string_view bytes) {
    constexpr std::size_t kLine = 16;
    std::string dump;
    for (std::size_t at = 0; at < bytes.size(); at += kLine) {
        std::string hex;
        std::string characters;
        for (const char c : bytes.substr(at, kLine)) {
            std::array<char, 4> digits{};
            (void)std::snprintf(digits.data(), digits.size(), "%02X ",
                                static_cast<unsigned char>(c));
            hex += digits.data();
            characters += c >= ' ' && c <= '~' ? c : '.';
        }
        hex.resize(3 * kLine, ' ');
        dump.append(hex).append(" [").append(characters).append("]\n");
    }
    return dump;
}

} // namespace orvexd
