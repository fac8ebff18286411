#pragma once

#include "core/RequestData.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace orvexd {

/// One exchange with the server. Assembled on the main loop's thread, then used by the worker
/// alone.
struct Exchange {
    std::uint64_t number = 0; ///< ascending; tells a late end timer from the newest exchange
    std::vector<std::shared_ptr<RequestData>> queue; ///< in transfer order
    std::string boundary;
};

} // namespace orvexd
