#pragma once

#include "core/DeliveryCode.h"

#include <cstdint>
#include <string>

namespace orvexd {

/// What the gateway core asks of the service on the bus. Main loop's thread only.
class IServiceEvents {
public:
    IServiceEvents() = default;
    virtual ~IServiceEvents() = default;
    IServiceEvents(const IServiceEvents&) = delete;
    IServiceEvents& operator=(const IServiceEvents&) = delete;
    IServiceEvents(IServiceEvents&&) = delete;
    IServiceEvents& operator=(IServiceEvents&&) = delete;

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

} // namespace orvexd
