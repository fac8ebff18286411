#pragma once

#include "Bus.h"

#include <cstdint>
#include <string>
#include <vector>

namespace orvexd::bench {

/// Opens `count` connections and attaches a waiting request to each; no connection of the
/// platform's kind 1 may be there, which would take them along.
void openLoad(const Bus& bus, std::size_t count);

/// Round trips of `count` connect calls, in nanoseconds.
std::vector<std::int64_t> timeConnects(const Bus& bus, std::size_t count);

/// Round trips of one exchange's calls, in nanoseconds.
struct CallTimes {
    std::int64_t prepare = 0;
    std::vector<std::int64_t> sendData;
    std::vector<std::int64_t> getData;
};

/// One exchange with small pieces: `count` sendData calls of 64 bytes each, and as many getData
/// calls as the answer has chunks, made when all of it has arrived.
CallTimes timeCalls(const Bus& bus, dbus_uint32_t connection, std::size_t count);

} // namespace orvexd::bench
