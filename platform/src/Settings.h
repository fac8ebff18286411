#pragma once

#include "trilba/network/ConnectionInfoContainer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace trilba {

/// What a platform file says; a new object holds the defaults.
struct Settings {
    std::string platformId = "linux-generic";
    std::string imei;
    std::string imsi;
    std::string mmf;
    std::optional<bool> networkPositioning; ///< absent: not stated, which permits
    network::ConnectionInfoContainer connections;
    std::string proxyHost;                  ///< empty: no proxy
    std::optional<std::uint32_t> proxyPort; ///< 1 to 65535
};

/// Reads the text of a platform file.
/// @return nothing when the text is not a key file or a value is not of its key's type: such a text
///         is taken to be half-written, and no part of it is used.
std::optional<Settings> parseSettings(std::string_view text);

} // namespace trilba
