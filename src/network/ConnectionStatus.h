#pragma once

#include <cstdint>

namespace orvexd {

/// Bits of the connection status, the value of the property "connectionStatus". Only 0, 1, 3 and 5
/// occur.
enum StatusBit : std::uint32_t {
    StatusConnected = 1, ///< an active connection exists
    StatusKindOne = 2,   ///< the first active one is of kind 1
    StatusFlagged = 4,   ///< it is flagged, or of a kind other than 1 and 2
};

/// Connection policies, the second argument of prepare and attach. Any value that is not named here
/// acts like KindOneOnly, 1 included.
enum ConnectionPolicy : std::uint32_t {
    KindOneOnly = 0,   ///< the status must have StatusKindOne
    NotFlagged = 2,    ///< StatusKindOne, or no StatusFlagged; also without a connection
    AnyConnection = 3, ///< always
};

} // namespace orvexd
