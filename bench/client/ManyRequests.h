#pragma once

#include "Bus.h"

#include <cstdint>

namespace orvexd::bench {

/// One exchange of `count` requests with `bytes` of data each: all but one attached, the last one
/// prepared. @return from the first call to the last chunk.
Clock::duration runManyRequests(const Bus& bus, dbus_uint32_t connection, std::size_t count,
                                std::size_t bytes);

} // namespace orvexd::bench
