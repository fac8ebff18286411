#include "Verdict.h"

#include "protocol/Codes.h"
#include "request/RequestData.h"
#include "slp/ResponseHead.h"
#include "slp/SlpResponseParser.h"
#include "slp/TextSearch.h"

#include <algorithm>
#include <memory>
#include <string_view>

namespace orvexd::check {

namespace {

constexpr std::uint32_t kChunk = 1024 * 1024;

using Queue = std::vector<std::shared_ptr<RequestData>>;

/// Clients that fetch at once whatever there is, and count it.
class Clients : public IChunkReceiver {
public:
    explicit Clients(std::uint32_t requests) : answers_(requests), open_(requests) {
        const auto parameters = std::make_shared<const ConnectionParameters>(
            ConnectionParameters{"request", "check", "1", "binary", "text/plain", kChunk});
        for (std::uint32_t number = 1; number <= requests; ++number) {
            queue_.push_back(
                std::make_shared<RequestData>(1, number, true, parameters, NotFlagged, this));
            queue_.back()->setMessageIndex(number);
        }
    }

    void postChunk(std::uint32_t /*connectionId*/, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override {
        const std::size_t place = requestId - 1;
        open_[place] += bytes.size();
        fetched_ = true;
        if (code != DeliveryCode::PartContinues) {
            answers_[place].parts.push_back(open_[place]);
            open_[place] = 0;
            answers_[place].isComplete = code == DeliveryCode::ResponseComplete;
        }
    }

    void fetch() {
        for (const auto& request : queue_) {
            do {
                fetched_ = false;
                request->requestNextChunk();
            } while (fetched_);
        }
    }

    [[nodiscard]] const Queue& queue() const noexcept { return queue_; }
    [[nodiscard]] std::vector<Verdict::Request> answers() const { return answers_; }

private:
    std::vector<Verdict::Request> answers_;
    std::vector<std::size_t> open_; ///< bytes of the part that has not ended
    bool fetched_ = false;
    Queue queue_;
};

/// libcurl hands on a head line by line.
void feedHead(SlpResponseParser& parser, std::string_view head) {
    while (!head.empty()) {
        const std::size_t end = std::min(head.find('\n'), head.size() - 1) + 1;
        parser.feed(head.substr(0, end));
        head.remove_prefix(end);
    }
}

/// The text in front of which the body is cut, so that each delimiter has what follows it.
std::string delimiterOf(const Recording& recording) {
    for (const std::string_view head : recording.heads()) {
        const ResponseHead parsed = parseResponseHead(head.substr(0, findBytes(head, kBlankLine)));
        if (parsed.multipart && !parsed.multipart->boundary.empty()) {
            return "\r\n--" + parsed.multipart->boundary; // a later head does not change it
        }
    }
    return {};
}

std::size_t endOfPiece(std::string_view body, std::string_view delimiter, std::size_t piece) {
    if (piece != 0) {
        return std::min(piece, body.size());
    }
    const std::size_t next =
        delimiter.empty() ? std::string_view::npos : findBytes(body, delimiter, 1);
    return std::min(next, body.size());
}

} // namespace

int Verdict::signalCode() const noexcept {
    return code == failure::kTransport ? failure::kNoConnection : failure::kExchangeFailed;
}

Verdict judge(const Recording& recording, std::uint32_t requests, std::size_t piece) {
    Clients clients(requests);
    SlpResponseParser parser(clients.queue());
    for (const std::string_view head : recording.heads()) {
        feedHead(parser, head);
    }
    const std::string delimiter = delimiterOf(recording);
    std::string_view body = recording.body();
    while (!body.empty() && !parser.isGivenUp()) {
        const std::size_t size = endOfPiece(body, delimiter, piece);
        parser.feed(body.substr(0, size));
        body.remove_prefix(size);
        clients.fetch();
    }
    parser.finish();
    clients.fetch();
    Verdict verdict;
    if (parser.hasError()) {
        verdict.code = parser.errorCode();
        verdict.text = parser.errorText();
    }
    verdict.requests = clients.answers();
    return verdict;
}

} // namespace orvexd::check
