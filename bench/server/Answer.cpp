#include "Answer.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>

namespace orvexd::bench {

namespace {

constexpr std::string_view kBoundary = "answer_0123456789abcdefghijklmnopqrstuvwxyz";
constexpr std::size_t kWholePart = 8192; ///< parts up to this size are not cut

std::string document(std::size_t requests) {
    std::string text = "<?xml version=\"1.0\"?>\n<SimpleLocationProtocol version=\"2.0\">\n"
                       "<SlpResponse status=\"ok\">\n";
    for (std::size_t i = 1; i <= requests; ++i) {
        const std::string number = std::to_string(i);
        text.append("<result oid=\"").append(number);
        text.append("\" href=\"cid:a").append(number).append("\"/>\n");
    }
    return text + "</SlpResponse>\n</SimpleLocationProtocol>\n";
}

std::string delimiter() {
    return "\r\n--" + std::string(kBoundary);
}

std::string startPart(std::size_t requests) {
    return delimiter() + "\r\nContent-Type: text/xml; charset=UTF-8\r\nContent-Id: start\r\n\r\n" +
           document(requests);
}

std::string partHead(std::size_t number) {
    return delimiter() +
           "\r\nContent-Type: application/octet-stream\r\n"
           "Content-Transfer-Encoding: binary\r\nContent-Id: a" +
           std::to_string(number) + "\r\n\r\n";
}

/// Collects small pieces into one record and sends large ones piece by piece.
class RecordWriter {
public:
    RecordWriter(SSL* tls, std::uint64_t perSecond) : tls_(tls), perSecond_(perSecond) {}

    /// Bytes that must not be cut.
    void whole(std::string_view bytes) {
        if (record_.size() + bytes.size() > kRecord) {
            flush();
        }
        record_.append(bytes);
        if (record_.size() > kRecord) {
            flush();
        }
    }

    void data(std::size_t count) {
        static const std::string block(kRecord, 'd');
        while (count > 0 && good_) {
            const std::size_t part = std::min(count, kRecord - record_.size());
            record_.append(block, 0, part);
            count -= part;
            if (record_.size() == kRecord) {
                flush();
            }
        }
    }

    void flush() {
        std::string_view bytes = record_;
        while (!bytes.empty() && good_) {
            std::size_t written = 0;
            good_ =
                SSL_write_ex(tls_, bytes.data(), std::min(bytes.size(), kRecord), &written) == 1;
            bytes.remove_prefix(written);
        }
        sent_ += record_.size();
        record_.clear();
        keepPace();
    }

    std::uint64_t sent() const noexcept { return good_ ? sent_ : 0; }

private:
    void keepPace() const {
        if (perSecond_ > 0) {
            const double due = static_cast<double>(sent_) / static_cast<double>(perSecond_);
            std::this_thread::sleep_until(begin_ + std::chrono::duration<double>(due));
        }
    }

    SSL* tls_;
    std::uint64_t perSecond_;
    std::string record_;
    std::uint64_t sent_ = 0;
    bool good_ = true;
    std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

} // namespace

std::uint64_t sendAnswer(SSL* tls, std::size_t requests, const AnswerPlan& plan) {
    const std::string start = startPart(requests);
    const std::string end = delimiter() + "--\r\n";
    std::uint64_t length = start.size() + end.size();
    for (std::size_t i = 1; i <= requests; ++i) {
        length += partHead(i).size() + plan.bytes;
    }
    RecordWriter writer(tls, plan.perSecond);
    writer.whole(
        "HTTP/1.1 200 OK\r\nContent-Type: multipart/related; type=\"text/xml\"; boundary=\"" +
        std::string(kBoundary) +
        "\"; start=\"start\"\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n");
    writer.whole(start);
    for (std::size_t i = 1; i <= requests; ++i) {
        if (plan.bytes <= kWholePart) {
            writer.whole(partHead(i) + std::string(plan.bytes, 'd'));
        } else {
            writer.whole(partHead(i));
            writer.data(plan.bytes);
        }
    }
    writer.whole(end);
    writer.flush();
    return writer.sent();
}

} // namespace orvexd::bench
