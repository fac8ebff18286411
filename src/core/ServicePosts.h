#pragma once

#include "protocol/Codes.h"
#include "request/Answer.h"
#include "support/MainLoopPost.h"

#include <cstdint>
#include <string>
#include <utility>

namespace orvexd {

/// What the gateway core asks of the service on the bus. Main loop's thread only.
class IServiceEvents {
public:
    IServiceEvents() = default;
    virtual ~IServiceEvents() = default;
    IServiceEvents(const IServiceEvents&) = delete;
    IServiceEvents& operator=(const IServiceEvents&) = delete;

    /// The platform's answer to whether an exchange may start at this moment.
    virtual bool isExchangePermitted() = 0;

    virtual void emitConnectionStatusChanged(std::uint32_t status) = 0;
    virtual void emitRequestData(std::uint32_t connectionId, std::uint32_t requestId) = 0;
    virtual void emitErrorSignal(std::uint32_t code, const std::string& message,
                                 const std::string& requests) = 0;
    /// Answers the getData call that is held for the request.
    virtual void deliverChunk(std::uint32_t connectionId, std::uint32_t requestId,
                              const std::string& bytes, DeliveryCode code) = 0;
    /// Gives up the getData call that is held for the request, without an answer.
    virtual void dropPending(std::uint32_t connectionId, std::uint32_t requestId) = 0;
};

/// The posts to the service on the bus. Any thread may make them; they arrive on the main loop in
/// the order in which they were made, never inside the handler that runs at that moment. Posts that
/// outlive this object are dropped.
class ServicePosts : public IChunkReceiver {
public:
    explicit ServicePosts(IServiceEvents& service) noexcept : service_(service) {}

    void postConnectionStatus(std::uint32_t status) const {
        post([status](IServiceEvents& service) { service.emitConnectionStatusChanged(status); });
    }

    void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) const {
        post([=](IServiceEvents& service) { service.emitRequestData(connectionId, requestId); });
    }

    void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override {
        post([=, bytes = std::move(bytes)](IServiceEvents& service) {
            service.deliverChunk(connectionId, requestId, bytes, code);
        });
    }

    void postRequestFinished(std::uint32_t connectionId, std::uint32_t requestId) const {
        post([=](IServiceEvents& service) { service.dropPending(connectionId, requestId); });
    }

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
