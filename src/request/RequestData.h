#pragma once

#include "protocol/Codes.h"
#include "request/Answer.h"
#include "request/OutgoingPart.h"
#include "support/Statistics.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orvexd {

/// Names a request across the daemon and in error signals: "3:17" is request 17 of connection 3.
[[nodiscard]] inline std::string requestKey(std::uint32_t connectionId, std::uint32_t requestId) {
    return std::to_string(connectionId) + ':' + std::to_string(requestId);
}

/// Appends `key` to a list of request keys, separated by one blank.
inline void appendKey(std::string& list, const std::string& key) {
    if (!list.empty()) {
        list += ' ';
    }
    list += key;
}

/// One client request from prepare or attach until the last chunk of its answer is delivered: ids,
/// state, and the two ways of its bytes, OutgoingPart and Answer.
///
/// Shared by the gateway core (main loop), the transfer (worker) and the response parser (worker).
/// Ids and parameters never change, the state is atomic, the number in the message and the content
/// id belong to the worker, and the two ways guard themselves.
class RequestData {
public:
    /// Memory that a waiting request takes besides its answer's buffer, its places in the tables
    /// included. A test measures it.
    static constexpr std::size_t kCost = 688;

    /// @param connectionPolicy which network connections the request may use.
    /// @param owner receiver of the chunks, not owned; null drops them.
    /// @param budget of what the request holds; must outlive it.
    ///
    /// The request counts for the user of its connection until it ends, which is on the main loop's
    /// thread then.
    RequestData(std::uint32_t connectionId, std::uint32_t requestId, bool prepared,
                std::shared_ptr<const ConnectionParameters> parameters,
                std::uint32_t connectionPolicy = NotFlagged, IChunkReceiver* owner = nullptr,
                MemoryBudget& budget = MemoryBudget::process());
    virtual ~RequestData() = default;

    // -- what never changes; any thread -------------------------------------------------------

    /// The client connection that owns the request.
    [[nodiscard]] std::uint32_t connectionId() const noexcept { return connectionId_; }
    /// Unique over all connections.
    [[nodiscard]] std::uint32_t requestId() const noexcept { return requestId_; }
    /// See `requestKey`.
    [[nodiscard]] std::string key() const { return requestKey(connectionId_, requestId_); }
    /// True for a request made by prepare, false for one made by attach.
    [[nodiscard]] bool isPrepared() const noexcept { return prepared_; }
    /// Which network connections the request may use, see ConnectionPolicy.
    [[nodiscard]] std::uint32_t connectionPolicy() const noexcept { return connectionPolicy_; }
    /// Shared with the other requests of the connection.
    [[nodiscard]] const ConnectionParameters& parameters() const noexcept { return *parameters_; }

    // -- state; any thread --------------------------------------------------------------------

    /// Sets `state`, also a lower one.
    void setState(RequestState state) noexcept {
        changeState(state_, connectionId_, requestId_, state);
    }
    /// Sets `state` unless the request is already further on: a server may answer while the upload
    /// still runs, and the upload must not undo what the response has reached.
    void raiseState(RequestState state) noexcept;
    /// The state at this moment; the other thread may change it right away.
    [[nodiscard]] RequestState state() const noexcept { return state_; }

    /// A cancelled request stores no more response bytes and delivers none.
    void setCancelled(bool cancelled) { answer_.setCancelled(cancelled); }
    /// Whether it was cancelled, by its client or because the connection was lost.
    [[nodiscard]] bool isCancelled() const { return answer_.isCancelled(); }

    // -- the client that opened the connection; any thread -------------------------------------

    /// It has left the bus. @param time on g_get_monotonic_time's clock, not 0.
    void setOpenerLeft(std::int64_t time) noexcept { openerLeft_ = time; }
    /// When it left, 0 as long as nobody knows that it has.
    [[nodiscard]] std::int64_t openerLeft() const noexcept { return openerLeft_; }

    // -- place in the SLP message; worker -----------------------------------------------------

    /// 1-based position of the request's element in the SLP message that carries it.
    void setMessageIndex(std::uint32_t index) noexcept { messageIndex_ = index; }
    [[nodiscard]] std::uint32_t messageIndex() const noexcept { return messageIndex_; }
    /// Content-Id of the request's part in the message, composed anew for each exchange.
    void setContentId(std::string id) { contentId_ = std::move(id); }
    [[nodiscard]] const std::string& contentId() const noexcept { return contentId_; }

    // -- outgoing part: what each operation does stands at OutgoingPart -----------------------

    void writePartHeader(std::string_view boundary) { part_.writeHeader(boundary, contentId_); }
    [[nodiscard]] const std::string& transferEncoding() const noexcept {
        return part_.transferEncoding();
    }
    void appendRequestData(std::string_view bytes, bool last) { part_.append(bytes, last); }
    [[nodiscard]] bool appendIfAccepting(std::string_view bytes, bool last) {
        return part_.appendIfAccepting(bytes, last);
    }
    [[nodiscard]] OutgoingPart::Piece takeRequestData(std::span<char> room) {
        return part_.take(room);
    }
    [[nodiscard]] bool isCrowded() { return part_.isCrowded(); }
    void setAcceptingData(bool accepting) { part_.setAccepting(accepting); }
    [[nodiscard]] bool isAcceptingData() const { return part_.isAccepting(); }
    [[nodiscard]] bool dataTransferStarted() const noexcept { return part_.hasStarted(); }

    // -- answer: what each operation does stands at Answer ------------------------------------

    void setExpectedPartIds(const std::vector<std::string>& ids) {
        answer_.setExpectedPartIds(ids);
    }
    void addExpectedPartId(const std::string& id) { answer_.addExpectedPartId(id); }
    [[nodiscard]] bool acceptPartId(const std::string& id) { return answer_.acceptPartId(id); }
    [[nodiscard]] bool hasExpectedPartIds() const noexcept { return answer_.hasExpectedPartIds(); }
    [[nodiscard]] bool hasOutstandingPartIds() const noexcept {
        return answer_.hasOutstandingPartIds();
    }
    void forgetPartIds() noexcept { answer_.forgetPartIds(); }
    Answer::Added addResponseData(std::string_view bytes, bool partComplete,
                                  const Patience& patience = {}) {
        return answer_.add(bytes, partComplete, patience);
    }
    bool deliverNext() { return answer_.deliverNext(); }
    void requestNextChunk() { answer_.requestNextChunk(); }
    [[nodiscard]] bool isWaitingForGetData() const { return answer_.isWaitingForGetData(); }
    /// How far the answer is ahead of the client, for tests and measurements.
    [[nodiscard]] const Answer& answer() const noexcept { return answer_; }

    // -- transfer queue -----------------------------------------------------------------------

    /// True when this request goes before `other` in a transfer queue: prepared requests come
    /// first, each group in ascending request id.
    [[nodiscard]] bool goesBefore(const RequestData& other) const noexcept;

    /// Index at which this request is inserted into `queue`, which is in transfer order. Behind
    /// requests with which it ties.
    [[nodiscard]] int queuePosition(std::span<const std::shared_ptr<RequestData>> queue) const;

private:
    const std::uint32_t connectionId_;
    const std::uint32_t requestId_;
    const bool prepared_;
    const std::uint32_t connectionPolicy_;
    const std::shared_ptr<const ConnectionParameters> parameters_;

    const Share<&User::requests> share_;

    std::atomic<std::int64_t> openerLeft_ = 0;
    std::atomic<RequestState> state_ = RequestState::Created;
    std::uint32_t messageIndex_ = 0; // worker
    std::string contentId_;          // worker
    OutgoingPart part_;
    Answer answer_;
    [[no_unique_address, maybe_unused]] Counted<Statistic::Requests> counted_;
};

inline RequestData::RequestData(std::uint32_t connectionId, std::uint32_t requestId, bool prepared,
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

inline void RequestData::raiseState(RequestState state) noexcept {
    RequestState current = state_;
    while (current < state) {
        if (state_.compare_exchange_weak(current, state)) { // else it has been read anew
            probe::requestState(connectionId_, requestId_, static_cast<unsigned>(current),
                                static_cast<unsigned>(state));
            return;
        }
    }
}

inline bool RequestData::goesBefore(const RequestData& other) const noexcept {
    if (prepared_ != other.prepared_) {
        return prepared_;
    }
    return requestId_ < other.requestId_;
}

inline int RequestData::queuePosition(std::span<const std::shared_ptr<RequestData>> queue) const {
    const auto position =
        std::upper_bound(queue.begin(), queue.end(), *this,
                         [](const RequestData& request, const std::shared_ptr<RequestData>& entry) {
                             return request.goesBefore(*entry);
                         });
    return static_cast<int>(position - queue.begin());
}

} // namespace orvexd
