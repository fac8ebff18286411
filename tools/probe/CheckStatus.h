#pragma once

#include "findings/Finding.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orvexd::probe {

/// The platform's connections as the daemon sees them, now.
struct PlatformView {
    bool answered = true; ///< false: it has not said anything in time
    std::string source;   ///< where its answers come from; empty where the library does not tell
    std::uint32_t status = 0;
    std::string proxy; ///< "host:port", empty for none
    bool permitted = true;
    std::string imei;
};

[[nodiscard]] PlatformView viewOfPlatform();

/// What the daemon reports against what the platform says.
/// @param reported the daemon's connection status; nothing when there is no daemon.
void checkStatus(const PlatformView& platform, std::optional<std::uint32_t> reported,
                 const findings::Checked& report);

} // namespace orvexd::probe
