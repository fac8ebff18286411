#pragma once

#include "protocol/Codes.h"
#include "support/ByteQueue.h"
#include "support/MemoryBudget.h"
#include "support/Probes.h"
#include "support/Threads.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

/// Where a request delivers the chunks of its answer.
class IChunkReceiver {
public:
    virtual ~IChunkReceiver() = default;

    /// Takes one chunk for the client that waits for it. Runs on the main loop's thread or on the
    /// worker, with the answer's lock held: implementations only post, they never call back.
    /// @param bytes at most one chunk of the size that the client named; may be empty.
    virtual void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                           std::string bytes) = 0;
};

/// Keeps an answer from running far ahead of the client that fetches it.
///
/// A server can send faster than a message bus carries. Left alone, the worker would then store
/// most of a long answer, and take the processors from the bus and all its clients while it does.
/// So the worker pauses when much is stored: the socket's buffer fills, and TCP slows the server
/// down. It also lets other threads run first when a client fetches and a whole chunk is stored.
///
/// A pause lasts 10 ms at the most, and half the high water of bytes is stored between two pauses.
/// So an answer that nobody fetches still arrives, at up to 50 MB a second: no request holds up the
/// others of its exchange for long. A machine whose processors are busy with other work gives less.
///
/// Guarded by the lock of the answer that it belongs to; every operation is called with it held.
class BackPressure {
public:
    /// What `pause` did.
    enum class Outcome { NotNeeded, ClientFetched, TimeIsUp };

    /// The high water in bytes, unless two chunks are more.
    static constexpr std::size_t kLeastHighWater = std::size_t{1024} * 1024;

    /// The longest pause.
    static constexpr std::chrono::microseconds kLongestPause{10'000};

    /// @param chunk bytes that the client fetches at once. Two chunks may always be stored.
    /// @param longestPause shorter or longer than usual for tests.
    explicit BackPressure(std::size_t chunk,
                          std::chrono::microseconds longestPause = kLongestPause) noexcept
        : chunk_(chunk),
          highWater_(std::max(kLeastHighWater, 2 * chunk)),
          longestPause_(longestPause) {}

    /// Stored bytes at which the worker pauses, and to which they have to fall for it to go on.
    [[nodiscard]] std::size_t highWater() const noexcept { return highWater_; }
    [[nodiscard]] std::size_t lowWater() const noexcept { return highWater_ / 2; }

    /// Bytes were stored for the client. Worker.
    void stored(std::size_t bytes) noexcept;

    /// Stored bytes were fetched by the client. Any thread.
    void fetched(std::size_t bytes) noexcept;

    /// Stored bytes were dropped. Any thread.
    void dropped(std::size_t bytes) noexcept { waiting_ -= bytes; }

    /// Whether the worker should yield its processor now: the client fetches, and the next chunk is
    /// there. True once for each time that something was fetched: beside busy neighbours a yield
    /// costs a time slice of each of them. Worker.
    [[nodiscard]] bool takeYield() noexcept;

    /// Pauses if the client is far behind. Worker.
    /// @param lock the answer's, which is free during the pause.
    Outcome pause(Mutex& lock) noexcept;

    /// Bytes that are stored and not yet fetched.
    [[nodiscard]] std::size_t waiting() const noexcept { return waiting_; }
    [[nodiscard]] bool isPausing() const noexcept { return pausing_; }

private:
    const std::size_t chunk_;
    const std::size_t highWater_;
    const std::chrono::microseconds longestPause_;
    std::size_t waiting_ = 0;
    std::size_t storedSincePause_ = 0;
    bool fetchedSinceYield_ = false;
    bool pausing_ = false;
    Condition drained_;
};

/// How long the worker waits when there is no room for an answer's bytes.
struct Patience {
    /// Microseconds on g_get_monotonic_time's clock; for ever unless told.
    gint64 deadline = std::numeric_limits<gint64>::max();
    /// Told once for each wait whose cause is not the answer alone: the whole budget is used up.
    std::function<void()> memoryIsShort;
};

/// Sets the state of a request, and shows a change to whoever traces the daemon. Any thread.
inline void changeState(std::atomic<RequestState>& state, std::uint32_t connectionId,
                        std::uint32_t requestId, RequestState now) noexcept {
    const RequestState before = state.exchange(now);
    if (before != now) {
        probe::requestState(connectionId, requestId, static_cast<unsigned>(before),
                            static_cast<unsigned>(now));
    }
}

/// The answer to one request: which response parts the server announced, and their bytes on the way
/// to the client, one chunk for each getData.
///
/// What is stored counts in the process's memory budget. When that has no room, or this answer
/// holds its share of it, the worker waits until the client fetches, and hands on what the client
/// asks for without storing it. TCP stops the server meanwhile, and the transfer's own time-out
/// ends a wait that nobody ends.
///
/// The worker fills it, the main loop asks for chunks; one lock guards the stored bytes. What is
/// known of announced parts belongs to the worker alone.
class Answer {
public:
    /// Largest chunk delivered at once, whatever chunk size the client named: a message bus refuses
    /// messages above 32 MiB and disconnects their sender.
    static constexpr std::size_t kLargestChunk = std::size_t{16} * 1024 * 1024;

    /// What an empty part that nobody has fetched costs, allocator included. So many parts may wait
    /// that all of them together cost a single account's bound.
    static constexpr std::size_t kPartCost = 400;

    /// What `add` did with the bytes.
    enum class Added {
        Stored,  ///< stored, handed on, or dropped because the answer is cancelled
        TooMany, ///< a further part would be one too many; the bytes are stored
        NoRoom,  ///< dropped, as there was no room until the deadline
    };

    /// @param chunkSize largest number of bytes in one delivery, as the client named it.
    /// @param state of the request; changed as parts arrive and leave.
    /// @param receiver of the chunks, not owned; null drops them.
    /// @param budget must outlive this object.
    Answer(std::uint32_t connectionId, std::uint32_t requestId, std::uint32_t chunkSize,
           std::atomic<RequestState>& state, IChunkReceiver* receiver, MemoryBudget& budget);

    // -- announced parts; worker --------------------------------------------------------------

    /// Replaces all announcements by these. An id may be announced several times.
    void setExpectedPartIds(const std::vector<std::string>& ids);
    /// Announces one more part.
    void addExpectedPartId(const std::string& id);
    /// True when `id` was announced for this request, however often it has come already.
    [[nodiscard]] bool acceptPartId(const std::string& id);
    /// Whether any part was announced.
    [[nodiscard]] bool hasExpectedPartIds() const noexcept { return expectedParts_ > 0; }
    /// Whether an announced part has not begun yet.
    [[nodiscard]] bool hasOutstandingPartIds() const noexcept { return outstandingParts_ > 0; }
    /// Gives the memory of the ids back when no more parts can come. How many were announced and
    /// are outstanding stays known.
    void forgetPartIds() noexcept { outstandingById_.clear(); }

    // -- bytes --------------------------------------------------------------------------------

    /// Stores a piece of the current response part and delivers a chunk if the client waits. Waits
    /// before when there is no room, and pauses afterwards for up to 10 ms when the client is far
    /// behind. Worker.
    /// @param partComplete the piece ends the part. One CR LF at the part's end is not data.
    /// @throws std::bad_alloc.
    Added add(std::string_view bytes, bool partComplete, const Patience& patience = {});

    /// Delivers one chunk if the client waits for one. Any thread.
    /// @return false when nothing can be delivered.
    bool deliverNext();

    /// The client asks for the next chunk: delivers it now or as soon as there is one. Main loop.
    void requestNextChunk();

    /// True while the next chunk is held until the client asks for it. Any thread.
    [[nodiscard]] bool isWaitingForGetData() const {
        const Lock guard(lock_);
        return waitingForGetData_;
    }

    /// Bytes that are stored and not yet fetched. Any thread.
    [[nodiscard]] std::size_t storedBytes() const {
        const Lock guard(lock_);
        return pressure_.waiting();
    }

    /// True while the worker pauses for the client. Any thread.
    [[nodiscard]] bool isPausing() const {
        const Lock guard(lock_);
        return pressure_.isPausing();
    }

    /// Stored bytes at which the worker pauses.
    [[nodiscard]] std::size_t highWater() const noexcept { return pressure_.highWater(); }

    /// A cancelled answer drops its bytes and stores no more, and its worker waits for nobody. It
    /// still counts parts, so that the request reaches Delivered. No chunk is posted after the
    /// call, so what the caller posts next comes behind all of them. Any thread.
    void setCancelled(bool cancelled);
    [[nodiscard]] bool isCancelled() const {
        const Lock guard(lock_);
        return cancelled_;
    }

private:
    /// One response part on its way to the client.
    struct ResponseBuffer {
        explicit ResponseBuffer(std::size_t block) noexcept : bytes(block) {}

        ByteQueue bytes;
        DeliveryCode code = DeliveryCode::PartContinues;
    };

    /// Keeps the charge in step with a buffer that is changed while this object lives.
    class Recount;

    [[nodiscard]] bool awaitRoom(std::string_view& bytes, bool partComplete,
                                 const Patience& patience);
    [[nodiscard]] bool offer(std::string_view& bytes, bool partComplete);
    [[nodiscard]] bool canStore(std::size_t size, bool partComplete) const noexcept;
    void handOn(std::string_view& bytes);
    [[nodiscard]] bool isClientAtEnd() const noexcept;
    Added store(std::string_view bytes, bool partComplete);
    void openBuffer();
    void closeFrontBuffer();
    bool appendToPart(std::string_view bytes, bool partComplete);
    bool passThrough(std::string_view bytes);
    bool deliverStored();
    [[nodiscard]] std::size_t blockSize() const noexcept;
    [[nodiscard]] DeliveryCode nextCode(const ResponseBuffer& front) const noexcept;
    void post(DeliveryCode code, std::string chunk);
    void setState(RequestState state) noexcept {
        changeState(state_, connectionId_, requestId_, state);
    }

    const std::uint32_t connectionId_;
    const std::uint32_t requestId_;
    const std::size_t chunkSize_;
    IChunkReceiver* const receiver_;
    std::atomic<RequestState>& state_;

    /// How many of the parts announced under one id have not been seen yet, by id. Worker.
    /// Ordered: a server chooses the ids, and could choose them to collide in a hash table.
    std::map<std::string, std::size_t> outstandingById_;
    std::size_t expectedParts_ = 0;    // worker; announcements, repeated ids included
    std::size_t outstandingParts_ = 0; // worker; announced parts not seen yet
    std::size_t completedParts_ = 0;   // worker

    mutable Mutex lock_;
    bool waitingForGetData_ = true;             // guarded by lock_
    bool cancelled_ = false;                    // guarded by lock_
    std::list<ResponseBuffer> responseBuffers_; // guarded by lock_; one per part, oldest first
    BackPressure pressure_;                     // guarded by lock_
    Charge charge_;                             // guarded by lock_; what the buffers take
};

} // namespace orvexd
