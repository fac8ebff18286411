#pragma once

#include "protocol/Codes.h"
#include "request/Answer.h"
#include "support/MainLoopPost.h"
#include "support/MemoryBudget.h"

#include <cstdint>
#include <string>
#include <utility>

namespace orvexd {

/// What the gateway core asks of the service on the bus. Main loop's thread only.
class IServiceEvents {
public:
    virtual ~IServiceEvents() = default;

    /// The platform's answer to whether an exchange may start at this moment.
    virtual bool isExchangePermitted() = 0;

    /// Broadcasts the new status value.
    virtual void emitConnectionStatusChanged(std::uint32_t status) = 0;
    /// Asks the request's client for its data.
    virtual void emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) = 0;
    /// Broadcasts a failure.
    /// @param message may hold any bytes.
    /// @param requests keys of the requests that it is about, separated by blanks; may be empty.
    virtual void emitErrorSignal(std::uint32_t code, const std::string& message,
                                 const std::string& requests) = 0;
    /// Answers the getData call that is held for the request. Nothing happens when none is held.
    virtual void deliverChunk(std::uint32_t connectionId, std::uint32_t requestId,
                              const std::string& bytes, DeliveryCode code) = 0;
    /// The request's data has room again: its client may go on.
    virtual void resumeUpload(std::uint32_t connectionId, std::uint32_t requestId) = 0;
    /// Gives up the getData call that is held for the request, without an answer: the call ends by
    /// its client's own time-out.
    virtual void dropPending(std::uint32_t connectionId, std::uint32_t requestId) = 0;
    /// Watches from now on whether this client leaves the bus, in the place of the one before. When
    /// it has left, the gateway core's `onWatchedClientLeft` is called, later and once.
    /// @param name unique name on the bus; empty: nobody is watched.
    virtual void watchClient(const std::string& name) = 0;
    /// Finds out who has left the bus, and lets the gateway core give back what they had, as long
    /// as the memory budget is full.
    virtual void onMemoryShort() = 0;
};

/// The posts to the service on the bus. Any thread may make them; they arrive on the main loop in
/// the order in which they were made, never inside the handler that runs at that moment. Posts that
/// outlive this object are dropped.
class ServicePosts : public IChunkReceiver {
public:
    /// @param service must outlive this object.
    explicit ServicePosts(IServiceEvents& service) noexcept : service_(service) {}

    /// The signal connectionStatusChanged.
    void postConnectionStatus(std::uint32_t status) const {
        post([status](IServiceEvents& service) { service.emitConnectionStatusChanged(status); });
    }

    /// The signal requestData.
    void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) const {
        post([=](IServiceEvents& service) { service.emitRequestData(connectionId, requestId); });
    }

    /// The answer to the getData call that is held for the request. The chunk counts in the memory
    /// budget until it is sent.
    void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override {
        Charge charge(MemoryBudget::process(), bytes.size());
        post([=, bytes = std::move(bytes), charge = std::move(charge)](IServiceEvents& service) {
            service.deliverChunk(connectionId, requestId, bytes, code);
        });
    }

    /// The end of a crowded upload.
    void postUploadRoom(std::uint32_t connectionId, std::uint32_t requestId) const {
        post([=](IServiceEvents& service) { service.resumeUpload(connectionId, requestId); });
    }

    /// The end of a request: the service drops what it still holds for it.
    void postRequestFinished(std::uint32_t connectionId, std::uint32_t requestId) const {
        post([=](IServiceEvents& service) { service.dropPending(connectionId, requestId); });
    }

    /// The signal errorSignal.
    /// @param keyList keys of the requests that the error is about, separated by blanks.
    void postError(int code, std::string message, std::string keyList) const {
        post([code, message = std::move(message),
              keyList = std::move(keyList)](IServiceEvents& service) {
            service.emitErrorSignal(static_cast<std::uint32_t>(code), message, keyList);
        });
    }

    /// Any other event, given as what it calls.
    template <typename Event> void post(Event event) const {
        postToMainLoop(lifetime_,
                       [&service = service_, event = std::move(event)] { event(service); });
    }

private:
    IServiceEvents& service_;
    Lifetime lifetime_;
};

} // namespace orvexd
