#include "request/Answer.h"

#include "support/Probes.h"
#include "support/Statistics.h"

#include <utility>

namespace orvexd {

namespace {

/// Chunks between these sizes are stored in the form in which they are delivered.
constexpr std::size_t kLeastStoredChunk = std::size_t{4} * 1024;
constexpr std::size_t kLargestStoredChunk = std::size_t{256} * 1024;

/// What a buffer takes beside its bytes: a node of the list with its pointers.
constexpr std::size_t kBufferRecord = 96;

} // namespace

class Answer::Recount {
public:
    Recount(Charge& charge, const ByteQueue& queue) noexcept
        : charge_(charge), queue_(queue), before_(queue.footprint()) {}
    ~Recount() { charge_.set(charge_.bytes() - before_ + queue_.footprint()); }
    Recount(const Recount&) = delete;
    Recount& operator=(const Recount&) = delete;

private:
    Charge& charge_;
    const ByteQueue& queue_;
    const std::size_t before_;
};

// -- back-pressure -------------------------------------------------------------------------------

void BackPressure::stored(std::size_t bytes) noexcept {
    waiting_ += bytes;
    storedSincePause_ += bytes;
}

void BackPressure::fetched(std::size_t bytes) noexcept {
    waiting_ -= bytes;
    fetchedSinceYield_ = true;
    if (pausing_ && waiting_ <= lowWater()) {
        drained_.broadcast();
    }
}

bool BackPressure::takeYield() noexcept {
    const bool isDue = waiting_ >= chunk_ && waiting_ < highWater();
    return isDue && std::exchange(fetchedSinceYield_, false);
}

BackPressure::Outcome BackPressure::pause(Mutex& lock) noexcept {
    if (waiting_ < highWater() || storedSincePause_ < highWater() - lowWater()) {
        return Outcome::NotNeeded;
    }
    storedSincePause_ = 0;
    const gint64 deadline = g_get_monotonic_time() + longestPause_.count();
    bool inTime = true;
    pausing_ = true;
    while (inTime && waiting_ > lowWater()) {
        inTime = drained_.waitUntil(lock, deadline);
    }
    pausing_ = false;
    return inTime ? Outcome::ClientFetched : Outcome::TimeIsUp;
}

// -- announced parts -----------------------------------------------------------------------------

Answer::Answer(std::uint32_t connectionId, std::uint32_t requestId, std::uint32_t chunkSize,
               std::atomic<RequestState>& state, IChunkReceiver* receiver, MemoryBudget& budget)
    : connectionId_(connectionId),
      requestId_(requestId),
      chunkSize_(std::min<std::size_t>(chunkSize, kLargestChunk)),
      receiver_(receiver),
      state_(state),
      pressure_(chunkSize_),
      charge_(budget) {
    openBuffer();
}

void Answer::setExpectedPartIds(const std::vector<std::string>& ids) {
    outstandingById_.clear();
    auto next = outstandingById_.end(); // ids that count up stand behind each other in the map
    for (const std::string& id : ids) {
        const auto entry = outstandingById_.try_emplace(next, id, 0);
        ++entry->second;
        next = std::next(entry);
    }
    expectedParts_ = ids.size();
    outstandingParts_ = ids.size();
}

void Answer::addExpectedPartId(const std::string& id) {
    ++outstandingById_[id];
    ++expectedParts_;
    ++outstandingParts_;
}

bool Answer::acceptPartId(const std::string& id) {
    const auto announced = outstandingById_.find(id);
    if (announced == outstandingById_.end()) {
        return false;
    }
    if (announced->second > 0) {
        --announced->second;
        --outstandingParts_;
    }
    return true;
}

// -- bytes ---------------------------------------------------------------------------------------

Answer::Added Answer::add(std::string_view bytes, bool partComplete, const Patience& patience) {
    if (!awaitRoom(bytes, partComplete, patience)) {
        return Added::NoRoom;
    }
    Added added = Added::Stored;
    bool yields = false;
    {
        const Lock guard(lock_);
        added = store(bytes, partComplete);
        if (!cancelled_) {
            yields = pressure_.takeYield();
            (void)pressure_.pause(lock_); // what ended it makes no difference
        }
    }
    if (yields) {
        // Client, bus and main loop carry chunks in turns. A worker that keeps its processor while
        // one of them waits for it holds up all three, for as long as a time slice lasts.
        g_thread_yield();
    }
    return added;
}

/// Waits until the rest of `bytes` may be stored.
/// @param bytes loses at its front what is handed on meanwhile.
/// @return false when there was no room until the deadline.
bool Answer::awaitRoom(std::string_view& bytes, bool partComplete, const Patience& patience) {
    if (offer(bytes, partComplete)) {
        return true;
    }
    countEvent(Statistic::RoomWaits);
    probe::roomWaitBegin(connectionId_, requestId_);
    RoomWait change(charge_.budget());
    if (patience.memoryIsShort && !charge_.budget().hasRoomForData()) {
        patience.memoryIsShort();
    }
    bool isThere = true;
    while (isThere && !offer(bytes, partComplete)) {
        isThere = change.wait(patience.deadline);
    }
    probe::roomWaitEnd(connectionId_, requestId_, isThere);
    return isThere;
}

/// Hands bytes for which there is no room on to a client that waits for them.
/// @param bytes loses what is handed on.
/// @return whether they may be stored, as they were before.
bool Answer::offer(std::string_view& bytes, bool partComplete) {
    const Lock guard(lock_);
    if (canStore(bytes.size(), partComplete)) {
        return true;
    }
    handOn(bytes);
    return false;
}

/// Whether there is room, or no need for any: what a client that waits takes as a whole may always
/// be stored.
bool Answer::canStore(std::size_t size, bool partComplete) const noexcept {
    if (cancelled_ || charge_.hasRoomForData()) {
        return true;
    }
    const std::size_t lineBreak = partComplete ? 2 : 0; // may be no data
    return size <= (isClientAtEnd() ? chunkSize_ + lineBreak : 0);
}

/// Sends one chunk to the client if it waits and there are more bytes than that.
void Answer::handOn(std::string_view& bytes) {
    if (isClientAtEnd() && bytes.size() > chunkSize_) {
        setState(RequestState::Receiving);
        post(DeliveryCode::PartContinues, std::string(bytes.substr(0, chunkSize_)));
        bytes.remove_prefix(chunkSize_);
    }
}

/// Whether the client waits in the middle of a part of which nothing is stored.
bool Answer::isClientAtEnd() const noexcept {
    return !waitingForGetData_ && responseBuffers_.size() == 1 &&
           responseBuffers_.front().code == DeliveryCode::PartContinues &&
           responseBuffers_.front().bytes.empty();
}

Answer::Added Answer::store(std::string_view bytes, bool partComplete) {
    if (!partComplete && passThrough(bytes)) {
        return Added::Stored;
    }
    if (!cancelled_ && !appendToPart(bytes, partComplete)) {
        return Added::Stored;
    }
    if (!partComplete) {
        setState(RequestState::Receiving);
    } else if (++completedParts_ == expectedParts_) {
        setState(RequestState::AllPartsReceived);
    } else {
        setState(RequestState::PartReceived);
        openBuffer();
    }
    const bool isFull = responseBuffers_.size() > charge_.budget().accountBound() / kPartCost;
    (void)deliverStored(); // nothing to deliver is as good here
    return isFull ? Added::TooMany : Added::Stored;
}

/// Begins the next part. A cancelled answer stores none.
void Answer::openBuffer() {
    if (!cancelled_) {
        responseBuffers_.emplace_back(blockSize());
        charge_.add(kBufferRecord);
    }
}

/// The front part has been delivered.
void Answer::closeFrontBuffer() {
    charge_.remove(kBufferRecord + responseBuffers_.front().bytes.footprint());
    responseBuffers_.pop_front();
}

/// @return false when the whole answer has been delivered: a server that repeats a part adds
/// nothing to it.
bool Answer::appendToPart(std::string_view bytes, bool partComplete) {
    if (responseBuffers_.empty()) {
        return false;
    }
    ResponseBuffer& last = responseBuffers_.back();
    const Recount recount(charge_, last.bytes);
    last.bytes.append(bytes);
    pressure_.stored(bytes.size());
    if (partComplete) {
        last.code = DeliveryCode::PartComplete;
        if (last.bytes.endsWithLineBreak()) {
            last.bytes.dropBack(2); // the line break belongs to the delimiter that follows
            pressure_.dropped(2);
        }
    }
    return true;
}

/// Delivers the front of `bytes` to a client that waits, without storing it first, and stores what
/// the chunk has no room for. Only in the middle of a part of which nothing is stored.
/// @return false when the bytes have to be stored first.
bool Answer::passThrough(std::string_view bytes) {
    if (cancelled_ || !isClientAtEnd()) {
        return false;
    }
    ResponseBuffer& buffer = responseBuffers_.front();
    const Recount recount(charge_, buffer.bytes);
    const std::size_t size = std::min(chunkSize_, bytes.size());
    std::string chunk(bytes.substr(0, size));
    buffer.bytes.append(bytes.substr(size));
    pressure_.stored(bytes.size() - size);
    pressure_.fetched(0);
    setState(RequestState::Receiving);
    post(DeliveryCode::PartContinues, std::move(chunk));
    return true;
}

/// An answer is stored in blocks of a chunk's size, which need no copy to become chunks. Small and
/// large chunks are made from blocks of the usual size.
std::size_t Answer::blockSize() const noexcept {
    const bool isStored = kLeastStoredChunk <= chunkSize_ && chunkSize_ <= kLargestStoredChunk;
    return isStored ? chunkSize_ : ByteQueue::kLargestBlock;
}

void Answer::post(DeliveryCode code, std::string chunk) {
    waitingForGetData_ = true;
    probe::chunkPosted(connectionId_, requestId_, static_cast<unsigned>(code), chunk.size());
    if (receiver_ != nullptr) {
        receiver_->postChunk(connectionId_, requestId_, code, std::move(chunk));
    }
}

bool Answer::deliverNext() {
    const Lock guard(lock_);
    return deliverStored();
}

bool Answer::deliverStored() {
    if (cancelled_) {
        if (state_ == RequestState::AllPartsReceived) {
            setState(RequestState::Delivered);
        }
        return true;
    }
    if (waitingForGetData_ || responseBuffers_.empty()) {
        return false;
    }
    ResponseBuffer& front = responseBuffers_.front();
    const DeliveryCode code = nextCode(front);
    std::string chunk;
    {
        const Recount recount(charge_, front.bytes);
        chunk = front.bytes.take(chunkSize_);
    }
    pressure_.fetched(chunk.size());
    if (code != DeliveryCode::PartContinues) {
        closeFrontBuffer();
    }
    if (state_ == RequestState::AllPartsReceived && responseBuffers_.empty()) {
        setState(RequestState::Delivered);
    }
    post(code, std::move(chunk));
    return true;
}

DeliveryCode Answer::nextCode(const ResponseBuffer& front) const noexcept {
    if (front.bytes.size() > chunkSize_ || front.code == DeliveryCode::PartContinues) {
        return DeliveryCode::PartContinues;
    }
    const bool endsResponse =
        state_ == RequestState::AllPartsReceived && responseBuffers_.size() == 1;
    return endsResponse ? DeliveryCode::ResponseComplete : front.code;
}

void Answer::requestNextChunk() {
    probe::chunkWanted(connectionId_, requestId_);
    const Lock guard(lock_);
    waitingForGetData_ = false;
    if (isClientAtEnd()) { // still being filled: the next bytes deliver
        charge_.budget().notifyChange();
        return;
    }
    (void)deliverStored(); // false only when there is nothing to deliver
}

void Answer::setCancelled(bool cancelled) {
    const Lock guard(lock_);
    cancelled_ = cancelled;
    if (cancelled) {
        pressure_.dropped(pressure_.waiting());
        responseBuffers_.clear();
        charge_.set(0);
        charge_.budget().notifyChange();
    }
}

} // namespace orvexd
