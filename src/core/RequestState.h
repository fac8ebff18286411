#pragma once

#include <cstdint>

namespace orvexd {

/// Life of a request, in ascending order.
enum class RequestState : std::uint32_t {
    Created = 0,          ///< waiting, in no transfer queue
    Queued = 1,           ///< waiting for its turn in the current exchange
    Sending = 2,          ///< its client is asked for data
    Sent = 3,             ///< all its data has been taken
    Receiving = 4,        ///< bytes of a response part are arriving
    PartReceived = 5,     ///< a response part is complete, more are announced
    AllPartsReceived = 6, ///< as many parts as announced are complete
    Delivered = 7,        ///< every byte has been handed to the client
};

} // namespace orvexd
