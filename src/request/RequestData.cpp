#include "request/RequestData.h"

#include <algorithm>
#include <utility>

namespace orvexd {

RequestData::RequestData(std::uint32_t connectionId, std::uint32_t requestId, bool prepared,
                         std::shared_ptr<const ConnectionParameters> parameters,
                         std::uint32_t connectionPolicy, IChunkReceiver* owner,
                         MemoryBudget& budget)
    : connectionId_(connectionId),
      requestId_(requestId),
      prepared_(prepared),
      connectionPolicy_(connectionPolicy),
      parameters_(std::move(parameters)),
      share_(parameters_->user(), 1, kCost),
      part_(parameters_, budget),
      answer_(connectionId, requestId, parameters_->chunkSize, state_, owner, budget) {}

void RequestData::raiseState(RequestState state) noexcept {
    RequestState current = state_;
    while (current < state && !state_.compare_exchange_weak(current, state)) {
        // `current` has been read anew
    }
}

bool RequestData::goesBefore(const RequestData& other) const noexcept {
    if (prepared_ != other.prepared_) {
        return prepared_;
    }
    return requestId_ < other.requestId_;
}

int RequestData::queuePosition(std::span<const std::shared_ptr<RequestData>> queue) const {
    const auto position =
        std::upper_bound(queue.begin(), queue.end(), *this,
                         [](const RequestData& request, const std::shared_ptr<RequestData>& entry) {
                             return request.goesBefore(*entry);
                         });
    return static_cast<int>(position - queue.begin());
}

} // namespace orvexd
