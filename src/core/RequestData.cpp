#include "core/RequestData.h"

#include <algorithm>
#include <utility>

namespace orvexd {

namespace {

/// Policy of a request until one is set: any connection that is not flagged.
constexpr std::uint32_t kDefaultPolicy = 2;

/// Chunks between these sizes are stored as they will be handed out.
constexpr std::size_t kLeastStoredChunk = std::size_t{4} * 1024;
constexpr std::size_t kLargestStoredChunk = std::size_t{256} * 1024;

} // namespace

RequestData::RequestData(std::uint32_t connectionId, std::uint32_t requestId, bool prepared,
                         std::shared_ptr<const ConnectionParameters> parameters)
    : connectionId_(connectionId),
      requestId_(requestId),
      prepared_(prepared),
      parameters_(std::move(parameters)),
      connectionPolicy_(kDefaultPolicy),
      pace_(chunkLimit()) {
    responseBuffers_.emplace_back(blockSize());
}

void RequestData::setConnectionPolicy(std::uint32_t policy) noexcept {
    const RecursiveLock guard(lock_);
    connectionPolicy_ = policy;
}

void RequestData::setState(RequestState state) noexcept {
    const RecursiveLock guard(lock_);
    state_ = state;
}

void RequestData::raiseState(RequestState state) noexcept {
    const RecursiveLock guard(lock_);
    if (state_ < state) {
        state_ = state;
    }
}

void RequestData::setCancelled(bool cancelled) noexcept {
    const RecursiveLock guard(lock_);
    cancelled_ = cancelled;
}

void RequestData::setAcceptingData(bool accepting) noexcept {
    const RecursiveLock guard(lock_);
    acceptingData_ = accepting;
}

void RequestData::setContentId(std::string id) {
    const RecursiveLock guard(lock_);
    contentId_ = std::move(id);
}

std::string RequestData::contentId() const {
    const RecursiveLock guard(lock_);
    return contentId_;
}

std::string RequestData::transferEncoding() const {
    const RecursiveLock guard(lock_);
    return transferEncoding_;
}

void RequestData::setMessageIndex(std::uint32_t index) noexcept {
    const RecursiveLock guard(lock_);
    messageIndex_ = index;
}

void RequestData::writePartHeader(std::string_view boundary) {
    const RecursiveLock guard(lock_);
    partHeader_.append("\r\n--").append(boundary).append("\r\n");
    partHeader_.append("Content-Type: ").append(parameters_->contentType).append("\r\n");
    partHeader_.append("Content-Transfer-Encoding: ")
        .append(parameters_->transferEncoding)
        .append("\r\n");
    partHeader_.append("Content-Id: ").append(contentId_).append("\r\n");
    transferEncoding_ = parameters_->transferEncoding;
}

void RequestData::appendRequestData(std::string_view bytes, bool last) {
    const RecursiveLock guard(lock_);
    if (!partHeaderEmitted_) {
        partHeader_.append("\r\n");
        outgoing_.append(partHeader_);
        partHeader_ = std::string();
        partHeaderEmitted_ = true;
    }
    outgoing_.append(bytes);
    lastDataGiven_ = last;
}

bool RequestData::appendIfAccepting(std::string_view bytes, bool last) {
    const RecursiveLock guard(lock_);
    if (!acceptingData_) {
        return false;
    }
    appendRequestData(bytes, last);
    return true;
}

RequestData::Taken RequestData::takeRequestData(std::span<char> room) {
    const RecursiveLock guard(lock_);
    dataTransferStarted_ = true;
    const std::size_t taken = outgoing_.takeInto(room);
    const bool finished = outgoing_.empty() && lastDataGiven_;
    if (finished) {
        acceptingData_ = false;
    }
    return {taken, finished};
}

void RequestData::setExpectedPartIds(const std::vector<std::string>& ids) {
    const RecursiveLock guard(lock_);
    partIds_.clear();
    expectedParts_ = 0;
    outstandingParts_ = 0;
    for (const std::string& id : ids) {
        addExpectedPartId(id);
    }
}

void RequestData::addExpectedPartId(const std::string& id) {
    const RecursiveLock guard(lock_);
    ++partIds_[id].outstanding;
    ++expectedParts_;
    ++outstandingParts_;
}

bool RequestData::acceptPartId(const std::string& id) {
    const RecursiveLock guard(lock_);
    const auto announced = partIds_.find(id);
    if (announced == partIds_.end()) {
        return false;
    }
    if (announced->second.outstanding > 0) {
        --announced->second.outstanding;
        --outstandingParts_;
    }
    return true;
}

bool RequestData::hasExpectedPartIds() const {
    const RecursiveLock guard(lock_);
    return expectedParts_ > 0;
}

bool RequestData::hasOutstandingPartIds() const {
    const RecursiveLock guard(lock_);
    return outstandingParts_ > 0;
}

void RequestData::addResponseData(std::string_view bytes, bool partComplete) {
    storeResponseData(bytes, partComplete);
    if (!cancelled_) {
        (void)pace_.rest(); // what ended it makes no difference
    }
}

void RequestData::storeResponseData(std::string_view bytes, bool partComplete) {
    const RecursiveLock guard(lock_);
    if (!partComplete && passThrough(bytes)) {
        return;
    }
    if (!cancelled_) {
        if (responseBuffers_.empty()) {
            // The whole answer has been delivered; a server that repeats a part adds nothing to it.
            return;
        }
        ResponseBuffer& last = responseBuffers_.back();
        last.bytes.append(bytes);
        pace_.stored(bytes.size());
        if (partComplete) {
            last.code = DeliveryCode::PartComplete;
            if (last.bytes.endsWithLineBreak()) {
                last.bytes.dropBack(2); // the line break belongs to the delimiter that follows
                pace_.taken(2);
            }
        }
    }
    if (!partComplete) {
        state_ = RequestState::Receiving;
    } else if (++completedParts_ == expectedParts_) {
        state_ = RequestState::AllPartsReceived;
    } else {
        state_ = RequestState::PartReceived;
        responseBuffers_.emplace_back(blockSize());
    }
    (void)deliverNext(); // nothing to hand out is as good here
}

/// Hands the front of `bytes` to a client that waits, without storing it first, and stores what the
/// chunk has no room for. Only in the middle of a part of which nothing is stored.
/// @return false when the bytes have to go the usual way.
bool RequestData::passThrough(std::string_view bytes) {
    if (cancelled_ || waitingForGetData_ || responseBuffers_.size() != 1) {
        return false;
    }
    ResponseBuffer& buffer = responseBuffers_.front();
    if (buffer.code != DeliveryCode::PartContinues || !buffer.bytes.empty()) {
        return false;
    }
    const std::size_t size = std::min(chunkLimit(), bytes.size());
    std::string chunk(bytes.substr(0, size));
    buffer.bytes.append(bytes.substr(size));
    pace_.stored(bytes.size() - size);
    state_ = RequestState::Receiving;
    post(DeliveryCode::PartContinues, std::move(chunk));
    return true;
}

std::size_t RequestData::chunkLimit() const noexcept {
    return std::min<std::size_t>(parameters_->chunkSize, kLargestChunk);
}

/// An answer is stored in blocks of a chunk's size, which need no copy to become chunks. Small and
/// large chunks are made from blocks of the usual size.
std::size_t RequestData::blockSize() const noexcept {
    const std::size_t chunk = chunkLimit();
    const bool isStored = kLeastStoredChunk <= chunk && chunk <= kLargestStoredChunk;
    return isStored ? chunk : ByteQueue::kLargestBlock;
}

void RequestData::post(DeliveryCode code, std::string chunk) {
    waitingForGetData_ = true;
    if (owner_ != nullptr) {
        owner_->postChunk(connectionId_, requestId_, code, std::move(chunk));
    }
}

bool RequestData::deliverNext() {
    const RecursiveLock guard(lock_);
    if (cancelled_) {
        if (state_ == RequestState::AllPartsReceived) {
            state_ = RequestState::Delivered;
        }
        return true;
    }
    if (waitingForGetData_ || responseBuffers_.empty()) {
        return false;
    }
    const std::size_t chunkSize = chunkLimit();
    ResponseBuffer& front = responseBuffers_.front();
    const DeliveryCode code = nextCode(front, chunkSize);
    std::string chunk = front.bytes.take(chunkSize);
    pace_.taken(chunk.size());
    if (code != DeliveryCode::PartContinues) {
        responseBuffers_.pop_front();
    }
    if (state_ == RequestState::AllPartsReceived && responseBuffers_.empty()) {
        state_ = RequestState::Delivered;
    }
    post(code, std::move(chunk));
    return true;
}

DeliveryCode RequestData::nextCode(const ResponseBuffer& front,
                                   std::size_t chunkSize) const noexcept {
    if (front.bytes.size() > chunkSize || front.code == DeliveryCode::PartContinues) {
        return DeliveryCode::PartContinues;
    }
    const bool endsResponse =
        state_ == RequestState::AllPartsReceived && responseBuffers_.size() == 1;
    return endsResponse ? DeliveryCode::ResponseComplete : front.code;
}

void RequestData::requestNextChunk() {
    const RecursiveLock guard(lock_);
    waitingForGetData_ = false;
    if (responseBuffers_.empty()) {
        return;
    }
    const ResponseBuffer& front = responseBuffers_.front();
    if (front.bytes.empty() && front.code == DeliveryCode::PartContinues) {
        return; // still being filled: the next bytes deliver
    }
    (void)deliverNext(); // false only when there is nothing to hand out
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
