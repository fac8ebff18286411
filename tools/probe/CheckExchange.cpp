#include "probe/CheckExchange.h"

#include "../check-answer/Advice.h"
#include "../check-answer/Recording.h"
#include "http/TransferOptions.h"
#include "probe/Message.h"
#include "slp/SlpResponseParser.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <glib.h>
#include <string_view>
#include <vector>

namespace orvexd::probe {

namespace {

using findings::Checked;

constexpr std::size_t kShownBytes = 200;
constexpr std::size_t kExaminedBytes = std::size_t{1} << 20U;
constexpr std::size_t kLargestHead = 65536;
constexpr std::time_t kClockTolerance = 300; // seconds

bool beginsLike(std::string_view line, std::string_view name) {
    return line.size() >= name.size() &&
           std::equal(name.begin(), name.end(), line.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

std::string trimmed(std::string_view text) {
    constexpr const char* kBlanks = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(kBlanks);
    return begin == std::string_view::npos
               ? std::string()
               : std::string(text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1));
}

/// What the server says: the last head, and the beginning of the body behind it.
class Said {
public:
    /// libcurl hands each line of a head to the write callback first and then to this.
    void addHeadLine(std::string_view line) {
        if (line.starts_with("HTTP/")) {
            *this = {};
            statusLine_ = trimmed(line);
        } else if (beginsLike(line, "content-type:")) {
            contentType_ = trimmed(line.substr(line.find(':') + 1));
        } else if (beginsLike(line, "date:")) {
            date_ = trimmed(line.substr(line.find(':') + 1));
        }
        head_.append(line);
        headComplete_ = line == "\r\n" || line == "\n";
    }

    void addBytes(std::string_view bytes) {
        if (headComplete_ && body_.size() < kExaminedBytes) {
            body_.append(bytes.substr(0, kExaminedBytes - body_.size()));
        }
    }

    /// Whether its first words speak of it, as web servers do that refuse a client.
    [[nodiscard]] bool mentions(const char* word) const {
        const std::string text = statusLine_ + " " + body_.substr(0, kLargestHead);
        return std::search(text.begin(), text.end(), word, word + std::strlen(word),
                           [](char a, char b) {
                               return std::tolower(static_cast<unsigned char>(a)) == b;
                           }) != text.end();
    }

    [[nodiscard]] bool isMultipart() const { return beginsLike(contentType_, "multipart/"); }

    /// As a recorded answer, without the coding of its transfer.
    [[nodiscard]] std::string recording() const { return head_ + body_; }

    [[nodiscard]] const std::string& statusLine() const noexcept { return statusLine_; }
    [[nodiscard]] const std::string& contentType() const noexcept { return contentType_; }
    [[nodiscard]] const std::string& date() const noexcept { return date_; }

    /// In a sentence's middle.
    [[nodiscard]] std::string text() const {
        std::string text = "\"" + statusLine_ + "\"";
        text += contentType_.empty() ? ", with no Content-Type" : ", Content-Type: " + contentType_;
        return body_.empty()
                   ? text + ", and no body"
                   : text + ", and a body that begins \"" + body_.substr(0, kShownBytes) + "\"";
    }

private:
    std::string statusLine_;
    std::string contentType_;
    std::string date_;
    std::string head_;
    std::string body_;
    bool headComplete_ = false;
};

/// The callbacks' side of one exchange.
struct Exchange {
    Message message = {};
    SlpResponseParser parser = SlpResponseParser(message.requests());
    Said said = {};
    std::size_t headBytes = 0;

    static std::size_t onRead(char* to, std::size_t size, std::size_t count, void* self) noexcept {
        return static_cast<Exchange*>(self)->message.read(to, size * count);
    }

    static std::size_t onHeader(char* data, std::size_t size, std::size_t count,
                                void* self) noexcept {
        auto& exchange = *static_cast<Exchange*>(self);
        try {
            exchange.headBytes += size * count;
            exchange.said.addHeadLine({data, size * count});
        } catch (...) {
            return 0;
        }
        return exchange.headBytes <= kLargestHead ? size * count : 0;
    }

    static std::size_t onWrite(char* data, std::size_t size, std::size_t count,
                               void* self) noexcept {
        auto& exchange = *static_cast<Exchange*>(self);
        try {
            exchange.said.addBytes({data, size * count});
            return exchange.parser.feed({data, size * count});
        } catch (...) {
            return 0;
        }
    }
};

void setCallbacks(CURL* handle, Exchange& exchange) {
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, &Exchange::onRead);
    curl_easy_setopt(handle, CURLOPT_READDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &Exchange::onHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, &exchange);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &Exchange::onWrite);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &exchange);
}

long statusOf(CURL* handle) {
    long status = 0;
    (void)curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

constexpr const char* kCertificateAdvice =
    "The server does not take the device's certificate: install the one that its operator has made "
    "for this device; see the findings about files and dates.";

/// Of web servers that speak of certificates: nginx says 400, and means 495 and 496.
bool isAboutCertificate(long status, const Said& said) {
    constexpr long kBadRequest = 400;
    constexpr long kBadCertificate = 495;
    constexpr long kNoCertificate = 496;
    return status == kBadCertificate || status == kNoCertificate ||
           (status == kBadRequest && said.mentions("certificate"));
}

/// What is wrong with an answer of the right kind; empty when nobody knows.
std::string faultIn(const Said& said) {
    const check::Recording recording(said.recording(), "");
    check::Advice advice(recording);
    advice.expectRequests(1);
    const std::vector<check::Finding> findings = advice.findings();
    const auto found = std::find_if(findings.begin(), findings.end(),
                                    [](const check::Finding& finding) { return finding.isFault; });
    return found == findings.end() ? std::string() : found->text;
}

std::string adviceOn(long status, const Said& said) {
    if (isAboutCertificate(status, said)) {
        return kCertificateAdvice;
    }
    if (status < 300 && said.isMultipart()) {
        const std::string fault = faultIn(said);
        return "A positioning server answers, and the daemon cannot use its answer" +
               (fault.empty() ? "." : ": " + fault + ".") + " Tell the operator of the server.";
    }
    switch (status) {
    case 401:
    case 403:
        return "The server knows the device's certificate and lets it do nothing: have the "
               "operator admit the device.";
    case 404:
    case 405:
        return "The path of the server's URL leads nowhere. ORVEXD_SERVER_URL is set when the "
               "daemon is built.";
    case 413:
        return "The server, or a gateway before it, takes smaller requests only: have its limit "
               "raised.";
    case 502:
    case 503:
    case 504:
        return "A gateway answers, and does not reach the server behind it: tell the operator.";
    default:
        return status < 300 ? "Something else than a positioning server answers under this address."
                            : "Tell the operator of the server.";
    }
}

void tellTransferFailure(const Road& road, CURLcode result, const Exchange& exchange,
                         const Destination& destination, const Checked& report) {
    if (!road.isOpen()) {
        report.broken("The request did not get to the server: " + road.text() + ".",
                      "See the findings about names and connection.");
    } else if (road.tls().isIdentityRefused()) {
        report.broken("The server refuses the device's certificate: \"" + road.tls().alert() +
                          "\".",
                      "See the findings about files, dates and tls.");
    } else if (result == CURLE_OPERATION_TIMEDOUT) {
        report.broken("The server has not answered completely within " +
                          std::to_string(destination.patience.whole.count()) +
                          " s. The daemon gives up after 60 s.",
                      "Ask the operator what keeps the server so long.");
    } else if (!exchange.said.statusLine().empty() && statusOf(road.handle()) != 0) {
        report.broken("The answer broke off: " + road.text() + ". The server had said " +
                          exchange.said.text() + ".",
                      adviceOn(statusOf(road.handle()), exchange.said));
    } else if (result == CURLE_SSL_CERTPROBLEM || result == CURLE_SSL_CACERT_BADFILE ||
               result == CURLE_PEER_FAILED_VERIFICATION || result == CURLE_SSL_CONNECT_ERROR) {
        tellTlsFailure(road, result, report);
    } else {
        report.broken("The connection ended before the server had answered: " + road.text() + ".",
                      "The server, or something on the way, resets it: a server that refuses the "
                      "device, a firewall, a server that has crashed.");
    }
}

void tellAnswer(const Road& road, Exchange& exchange, const Checked& report) {
    exchange.parser.finish();
    const long status = statusOf(road.handle());
    if (!exchange.parser.hasError()) {
        report.fine("The server has answered as it should: \"" + exchange.said.statusLine() +
                    "\".");
    } else {
        report.broken("The server said " + exchange.said.text() + ". The daemon calls it \"" +
                          exchange.parser.errorText() + "\".",
                      adviceOn(status, exchange.said));
    }
}

void compareClocks(const std::string& date, const Checked& dates) {
    const std::time_t theirs = curl_getdate(date.c_str(), nullptr);
    const std::time_t ours = std::time(nullptr);
    if (theirs > 0 && std::labs(static_cast<long>(theirs - ours)) > kClockTolerance) {
        dates.doubtful("The server's clock says " + date + ", which is " +
                           std::to_string(std::labs(static_cast<long>(theirs - ours))) +
                           " s away from the device's.",
                       "One of the two is wrong; set the device's clock.");
    }
}

} // namespace

void checkExchange(const Destination& destination, const Checked& report, const Checked& dates) {
    Exchange exchange;
    HeaderList headers;
    for (const std::string& line : exchange.message.headerLines()) {
        headers.append(line);
    }
    exchange.parser.setPatience(
        {g_get_monotonic_time() + destination.patience.whole.count() * G_USEC_PER_SEC, [] {}});
    Road road(destination.files, destination.proxy, destination.patience);
    TransferOptions::setMessage(road.handle(), headers.get());
    setCallbacks(road.handle(), exchange);
    const CURLcode result = road.travel();
    compareClocks(exchange.said.date(), dates);
    if (result != CURLE_OK) {
        tellTransferFailure(road, result, exchange, destination, report);
    } else {
        tellAnswer(road, exchange, report);
    }
}

} // namespace orvexd::probe
