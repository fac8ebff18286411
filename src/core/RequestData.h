#pragma once

#include "core/ClientPace.h"
#include "core/ConnectionParameters.h"
#include "core/DeliveryCode.h"
#include "core/IChunkReceiver.h"
#include "core/RequestState.h"
#include "support/ByteQueue.h"
#include "support/Locks.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orvexd {

/// One client request from prepare or attach until the last chunk of its answer is delivered.
///
/// Shared by the gateway core (main loop), the transfer (worker) and the response parser (worker).
/// Everything that changes after construction is either guarded by the record's recursive lock or
/// atomic; plain readers of the atomics take no lock. Lock order: the transfer's data mutex comes
/// before this record's lock, so nobody who holds this lock may take that mutex.
class RequestData {
public:
    /// Largest chunk handed out at once, whatever chunk size the client named: a message bus
    /// refuses messages above 32 MiB and disconnects their sender.
    static constexpr std::size_t kLargestChunk = std::size_t{16} * 1024 * 1024;

    RequestData(std::uint32_t connectionId, std::uint32_t requestId, bool prepared,
                std::shared_ptr<const ConnectionParameters> parameters);
    virtual ~RequestData() = default;
    RequestData(const RequestData&) = delete;
    RequestData& operator=(const RequestData&) = delete;
    RequestData(RequestData&&) = delete;
    RequestData& operator=(RequestData&&) = delete;

    std::uint32_t connectionId() const noexcept { return connectionId_; }
    std::uint32_t requestId() const noexcept { return requestId_; }
    /// True for a request made by prepare, false for one made by attach.
    bool isPrepared() const noexcept { return prepared_; }
    const ConnectionParameters& parameters() const noexcept { return *parameters_; }

    /// Receiver of the chunks, not owned; set once, before the request is shared.
    void setOwner(IChunkReceiver* owner) noexcept { owner_ = owner; }

    void setConnectionPolicy(std::uint32_t policy) noexcept;
    /// Which network connections the request may use; 2 until set.
    std::uint32_t connectionPolicy() const noexcept { return connectionPolicy_; }

    void setState(RequestState state) noexcept;
    /// Sets `state` unless the request is already further on: a server may answer while the upload
    /// still runs, and the upload must not undo what the response has reached.
    void raiseState(RequestState state) noexcept;
    RequestState state() const noexcept { return state_; }

    /// A cancelled request stores no more response bytes.
    void setCancelled(bool cancelled) noexcept;
    bool isCancelled() const noexcept { return cancelled_; }

    /// True while the next response chunk is held until the client asks for it.
    bool isWaitingForGetData() const noexcept { return waitingForGetData_; }

    /// True while the transfer asks the client for this request's data.
    void setAcceptingData(bool accepting) noexcept;
    bool isAcceptingData() const noexcept { return acceptingData_; }

    /// True once the transfer has taken outgoing bytes.
    bool dataTransferStarted() const noexcept { return dataTransferStarted_; }

    void setContentId(std::string id);
    std::string contentId() const;
    /// Content-Transfer-Encoding of the outgoing part; empty before `writePartHeader`.
    std::string transferEncoding() const;

    /// 1-based position of the request's element in the SLP message that carries it.
    void setMessageIndex(std::uint32_t index) noexcept;
    std::uint32_t messageIndex() const noexcept { return messageIndex_; }

    // -- outgoing part ------------------------------------------------------------------------

    /// Composes the MIME header lines of the outgoing part for the exchange's `boundary`.
    void writePartHeader(std::string_view boundary);

    /// Stores client data, in front of the first also the part header and its empty line.
    /// @param last the data ends the part; a later call with false takes that back.
    void appendRequestData(std::string_view bytes, bool last);

    /// `appendRequestData` if the transfer asks for this request's data at this moment. Test and
    /// append are one step, so that data is either taken or refused, never lost in between.
    /// @return false when the request does not accept data.
    bool appendIfAccepting(std::string_view bytes, bool last);

    struct Taken {
        std::size_t bytes; ///< how many bytes were copied
        bool finished;     ///< everything was taken and the client marked its data as complete
    };

    /// Copies up to room.size() outgoing bytes into `room`. A take that finishes the part ends the
    /// acceptance of data in the same step.
    Taken takeRequestData(std::span<char> room);

    // -- announced response parts -------------------------------------------------------------

    void setExpectedPartIds(const std::vector<std::string>& ids);
    void addExpectedPartId(const std::string& id);
    /// True when `id` was announced for this request, however often it has come already.
    bool acceptPartId(const std::string& id);
    bool hasExpectedPartIds() const;
    bool hasOutstandingPartIds() const;

    // -- response data ------------------------------------------------------------------------

    /// Stores a piece of the current response part and hands out a chunk if the client waits.
    /// Rests afterwards, without the lock, when the client is far behind.
    /// @param partComplete the piece ends the part; one CR LF at the part's end is not data.
    void addResponseData(std::string_view bytes, bool partComplete);

    /// How far the answer is ahead of the client.
    const ClientPace& pace() const noexcept { return pace_; }

    /// Hands one chunk to the owner if the client waits for one; the only way out for response
    /// bytes. @return false when nothing can be handed out.
    bool deliverNext();

    /// The client asks for the next chunk: hands it out now or as soon as there is one.
    void requestNextChunk();

    // -- transfer queue -----------------------------------------------------------------------

    /// True when this request goes before `other` in a transfer queue: prepared requests first,
    /// each group in ascending request id.
    bool goesBefore(const RequestData& other) const noexcept;

    /// Index at which this request is inserted into `queue`, which is in transfer order.
    int queuePosition(std::span<const std::shared_ptr<RequestData>> queue) const;

private:
    struct ResponseBuffer {
        explicit ResponseBuffer(std::size_t block) noexcept : bytes(block) {}

        ByteQueue bytes;
        DeliveryCode code = DeliveryCode::PartContinues;
    };

    /// How many of the parts announced under one id have not been seen yet.
    struct Announcement {
        std::size_t outstanding = 0;
    };

    void storeResponseData(std::string_view bytes, bool partComplete);
    bool passThrough(std::string_view bytes);
    std::size_t chunkLimit() const noexcept;
    std::size_t blockSize() const noexcept;
    DeliveryCode nextCode(const ResponseBuffer& front, std::size_t chunkSize) const noexcept;
    void post(DeliveryCode code, std::string chunk);

    const std::uint32_t connectionId_;
    const std::uint32_t requestId_;
    const bool prepared_;
    const std::shared_ptr<const ConnectionParameters> parameters_;
    IChunkReceiver* owner_ = nullptr;

    mutable RecursiveMutex lock_;

    // written under lock_, read without it
    std::atomic<std::uint32_t> connectionPolicy_;
    std::atomic<bool> waitingForGetData_ = true;
    std::atomic<bool> cancelled_ = false;
    std::atomic<std::uint32_t> messageIndex_ = 0;
    std::atomic<RequestState> state_ = RequestState::Created;
    std::atomic<bool> acceptingData_ = false;
    std::atomic<bool> dataTransferStarted_ = false;

    std::string partHeader_;                                // guarded by lock_
    bool partHeaderEmitted_ = false;                        // guarded by lock_
    std::string transferEncoding_;                          // guarded by lock_
    ByteQueue outgoing_;                                    // guarded by lock_
    bool lastDataGiven_ = false;                            // guarded by lock_
    std::string contentId_;                                 // guarded by lock_
    std::unordered_map<std::string, Announcement> partIds_; // guarded by lock_
    std::size_t expectedParts_ = 0;    // guarded by lock_; announcements, repeated ids included
    std::size_t outstandingParts_ = 0; // guarded by lock_; announced parts not seen yet
    std::list<ResponseBuffer> responseBuffers_; // guarded by lock_; one per part, oldest first
    std::size_t completedParts_ = 0;            // guarded by lock_
    ClientPace pace_;
};

} // namespace orvexd
