#pragma once

#include "request/Answer.h"
#include "request/RequestData.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace orvexd::test {

struct Delivery {
    DeliveryCode code;
    std::string bytes;

    bool operator==(const Delivery& other) const = default;
};

/// The requests of one exchange, numbered from 1 as the composer does it, and a client that writes
/// down every chunk.
class RecordedExchange : public IChunkReceiver {
public:
    static constexpr std::uint32_t kChunkSize = 1024 * 1024;

    explicit RecordedExchange(std::size_t requests, std::uint32_t chunkSize = kChunkSize) {
        auto parameters = std::make_shared<ConnectionParameters>();
        parameters->chunkSize = chunkSize;
        deliveries_.resize(requests);
        for (std::uint32_t index = 1; index <= requests; ++index) {
            auto request =
                std::make_shared<RequestData>(1, index, true, parameters, NotFlagged, this);
            request->setMessageIndex(index);
            queue_.push_back(std::move(request));
        }
    }

    void postChunk(std::uint32_t /*connectionId*/, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override {
        deliveries_.at(requestId - 1).push_back({code, std::move(bytes)});
    }

    std::span<const std::shared_ptr<RequestData>> queue() const { return queue_; }

    /// Requests count from 1, as in the SLP message.
    RequestData& request(std::size_t index) { return *queue_.at(index - 1); }
    const std::vector<Delivery>& deliveries(std::size_t index) const {
        return deliveries_.at(index - 1);
    }

    /// The client of the request asks for one chunk.
    void ask(std::size_t index) { request(index).requestNextChunk(); }

    /// Asks until nothing more comes, and returns the bytes of each part; the last entry is the
    /// part that is still open, if any bytes of it came.
    std::vector<std::string> parts(std::size_t index) {
        for (std::size_t before = deliveries(index).size() + 1;
             before != deliveries(index).size();) {
            before = deliveries(index).size();
            ask(index);
        }
        std::vector<std::string> parts;
        std::string open;
        for (const Delivery& delivery : deliveries(index)) {
            open += delivery.bytes;
            if (delivery.code != DeliveryCode::PartContinues) {
                parts.push_back(std::move(open));
                open.clear();
            }
        }
        if (!open.empty()) {
            parts.push_back(open);
        }
        return parts;
    }

private:
    std::vector<std::shared_ptr<RequestData>> queue_;
    std::vector<std::vector<Delivery>> deliveries_;
};

} // namespace orvexd::test
