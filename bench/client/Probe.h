#pragma once

#include "Bus.h"

#include <chrono>
#include <cstdint>
#include <vector>

namespace orvexd::bench {

/// Round trips of "Get connectionStatus" in nanoseconds: one call every `interval`, or as soon as
/// the one before is answered, until `time` has passed.
std::vector<std::int64_t> probe(const Bus& bus, std::chrono::milliseconds time,
                                std::chrono::microseconds interval);

} // namespace orvexd::bench
