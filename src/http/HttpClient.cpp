#include "http/HttpClient.h"

#include "config/ConfHandler.h"
#include "config/MapWrapper.h"
#include "http/IExchangeOwner.h"
#include "http/RequestBody.h"
#include "http/TransferOptions.h"
#include "protocol/Codes.h"
#include "slp/SlpResponseParser.h"
#include "support/Probes.h"

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
    // On g_get_monotonic_time's clock, for whoever traces the daemon; 0 for what has not come.
    gint64 beginning = 0;
    gint64 uploaded = 0; ///< the end of the body
    gint64 answered = 0; ///< the first piece of the server's response

    void showSent(std::size_t bytes) noexcept {
        probe::bytesSent(bytes);
        if (bytes == 0) {
            uploaded = g_get_monotonic_time();
        }
    }
    void showReceived(std::size_t bytes) noexcept {
        probe::bytesReceived(bytes);
        if (begun && answered == 0) { // what came before is a proxy's answer
            answered = g_get_monotonic_time();
        }
    }
    /// The time from the beginning to one of the others.
    [[nodiscard]] long until(gint64 time) const noexcept {
        return time == 0 ? 0L : static_cast<long>(time - beginning);
    }
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
    transfer.beginning = g_get_monotonic_time();
    CURLcode result = curl_easy_perform(handle.get());
    parser.finish(); // may wait for room, too
    if (parser.hasStalled()) {
        result = CURLE_OPERATION_TIMEDOUT; // libcurl may not have looked at its clock any more
    }
    showTransfer(transfer, result);
    errorText_ = result == CURLE_OK ? "" : curl_easy_strerror(result);
    return result == CURLE_OK ? failure::kNone : failure::kTransport;
}

/// Shows the end of a transfer to whoever traces the daemon. The parser judges the response.
void HttpClient::showTransfer(const Transfer& transfer, CURLcode result) {
    const auto number = [&transfer](CURLINFO which) {
        curl_off_t value = 0;
        curl_easy_getinfo(transfer.handle, which, &value);
        return value;
    };
    long status = 0;
    curl_easy_getinfo(transfer.handle, CURLINFO_RESPONSE_CODE, &status);
    if (!transfer.begun) {
        showVerifyResult(transfer.handle);
    }
    probe::transferPhases(static_cast<long>(number(CURLINFO_NAMELOOKUP_TIME_T)),
                          static_cast<long>(number(CURLINFO_CONNECT_TIME_T)),
                          static_cast<long>(number(CURLINFO_APPCONNECT_TIME_T)),
                          transfer.until(transfer.uploaded), transfer.until(transfer.answered),
                          transfer.until(g_get_monotonic_time()));
    probe::transferEnd(result, status, static_cast<std::size_t>(number(CURLINFO_SIZE_UPLOAD_T)),
                       static_cast<std::size_t>(number(CURLINFO_SIZE_DOWNLOAD_T)),
                       static_cast<long>(number(CURLINFO_TOTAL_TIME_T)));
}

/// Shows what the TLS library says of the server's certificate. libcurl has nothing but the result
/// of a good one when no certificate has come.
void HttpClient::showVerifyResult(CURL* handle) {
    long result = 0;
    curl_off_t secured = 0;
    curl_easy_getinfo(handle, CURLINFO_SSL_VERIFYRESULT, &result);
    curl_easy_getinfo(handle, CURLINFO_APPCONNECT_TIME_T, &secured);
    if (result != 0 || secured != 0) {
        probe::tlsVerified(result);
    }
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
    self.showReceived(size * count);
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
        showVerifyResult(self.handle);
    }
    try {
        const std::size_t read = self.body.readBody({buffer, size * count});
        if (read != CURL_READFUNC_ABORT) {
            self.moved += read;
            self.showSent(read);
        }
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
