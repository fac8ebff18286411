#pragma once

#include "core/DeliveryCode.h"

#include <cstdint>
#include <string>

namespace orvexd {

/// Where a request hands its response chunks.
class IChunkReceiver {
public:
    IChunkReceiver() = default;
    virtual ~IChunkReceiver() = default;
    IChunkReceiver(const IChunkReceiver&) = delete;
    IChunkReceiver& operator=(const IChunkReceiver&) = delete;
    IChunkReceiver(IChunkReceiver&&) = delete;
    IChunkReceiver& operator=(IChunkReceiver&&) = delete;

    /// Takes one chunk for the client that waits for it. Called on the main loop's thread or on the
    /// worker, with the request's lock held: implementations only post, they never call back.
    virtual void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                           std::string bytes) = 0;
};

} // namespace orvexd
