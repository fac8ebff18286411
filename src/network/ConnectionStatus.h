#pragma once

#include <cstdint>

namespace orvexd {

/// Bits of the connection status, the value of the property "connectionStatus". Only 0, 1, 3 and 5
/// occur.
inline constexpr std::uint32_t StatusConnected = 1; ///< an active connection exists
inline constexpr std::uint32_t StatusKindOne = 2;   ///< the first active one is of kind 1
inline constexpr std::uint32_t StatusFlagged =
    4; ///< it is flagged, or of a kind other than 1 and 2

/// Connection policies, the second argument of prepare and attach. Any value that is not named
/// here acts like KindOneOnly.
inline constexpr std::uint32_t KindOneOnly = 0; ///< also 1: status must have StatusKindOne
inline constexpr std::uint32_t NotFlagged = 2;  ///< StatusKindOne, or no StatusFlagged
inline constexpr std::uint32_t AnyConnection = 3;

} // namespace orvexd
