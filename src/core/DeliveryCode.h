#pragma once

#include <cstdint>

namespace orvexd {

/// Tells a client with each chunk where it stands in the response. The numbers are on the bus.
enum class DeliveryCode : std::uint32_t {
    PartContinues = 2301,    ///< more bytes of the same response part follow
    PartComplete = 2302,     ///< the chunk ends a part and further parts follow
    ResponseComplete = 2303, ///< the chunk ends the last part of the response
};

} // namespace orvexd
