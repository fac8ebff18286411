#include "OurParse.h"

#include "slp/SlpResponseParser.h"

#include <algorithm>
#include <utility>

namespace orvexd::bench {

namespace {

/// The client that fetches.
class Fetcher : public IChunkReceiver {
public:
    void postChunk(std::uint32_t /*connection*/, std::uint32_t /*request*/, DeliveryCode /*code*/,
                   std::string bytes) override {
        chunk_ = std::move(bytes);
        fetched_ = true;
    }

    /// Fetches all that is stored; the last call is held until there is more.
    void fetch(RequestData& request) {
        do {
            fetched_ = false;
            request.requestNextChunk();
        } while (fetched_);
    }

private:
    std::string chunk_;
    bool fetched_ = false;
};

} // namespace

std::vector<std::string_view> cutResponse(const Response& response, std::size_t piece) {
    constexpr std::string_view kDelimiter = "\r\n--answer_";
    constexpr std::string_view kBlankLine = "\r\n\r\n";
    const std::string_view body = response.body;
    std::vector<std::string_view> pieces;
    std::size_t begin = 0;
    while (begin < body.size()) {
        std::size_t end = std::min(begin + piece, body.size());
        // The part that begins last in the piece moves on when its header block is not complete.
        const std::size_t reach = end - begin + kDelimiter.size() - 1;
        const std::size_t last = body.substr(begin, reach).rfind(kDelimiter);
        if (last != std::string_view::npos && last > 0 && end < body.size() &&
            body.find(kBlankLine, begin + last) + kBlankLine.size() > end) {
            end = begin + last;
        }
        pieces.push_back(body.substr(begin, end - begin));
        begin = end;
    }
    return pieces;
}

std::vector<std::shared_ptr<RequestData>> makeQueue(std::size_t requests, const char* encoding,
                                                    std::uint32_t chunkSize,
                                                    IChunkReceiver* receiver) {
    const auto parameters = std::make_shared<const ConnectionParameters>(
        ConnectionParameters{"fingerprintRequest", "fingerprint", "1.0", encoding,
                             "application/octet-stream", chunkSize});
    std::vector<std::shared_ptr<RequestData>> queue;
    for (std::uint32_t i = 1; i <= requests; ++i) {
        queue.push_back(
            std::make_shared<RequestData>(1, i, true, parameters, NotFlagged, receiver));
        queue.back()->setMessageIndex(i);
    }
    return queue;
}

bool parseOurs(const Response& response, const std::vector<std::string_view>& pieces) {
    Fetcher client;
    const auto queue = makeQueue(1, "binary", 65536, &client);
    SlpResponseParser parser(queue);
    parser.feed(response.head);
    for (const std::string_view piece : pieces) {
        parser.feed(piece);
        client.fetch(*queue.front());
    }
    parser.finish();
    client.fetch(*queue.front());
    return !parser.hasError() && queue.front()->state() == RequestState::Delivered;
}

} // namespace orvexd::bench
