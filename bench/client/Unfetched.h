#pragma once

#include "Bus.h"

namespace orvexd::bench {

/// Gives the data of one exchange of `count` requests, `bytes` each, and asks for no answer.
/// Returns when all data is on its way.
/// @return when the exchange was asked for.
Clock::time_point startUnfetched(const Bus& bus, dbus_uint32_t connection, std::size_t count,
                                 std::size_t bytes);

} // namespace orvexd::bench
