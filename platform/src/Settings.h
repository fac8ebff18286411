#pragma once

#include "trilba/network/ConnectionInfoContainer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace trilba {

/// Where the answers are to come from: `[Platform] Source`.
enum class SourceWish { Auto, File, NetworkManager };

/// What a platform file, or another source, says; a new object holds the defaults.
struct Settings {
    std::string platformId = "linux-generic";
    std::string imei;
    std::string imsi;
    std::string mmf;
    std::optional<bool> networkPositioning; ///< absent: not stated, which permits
    network::ConnectionInfoContainer connections;
    std::string proxyHost;                  ///< empty: no proxy
    std::optional<std::uint32_t> proxyPort; ///< 1 to 65535

    // Only a platform file says these.
    SourceWish source = SourceWish::Auto;
    bool saysSystem = false;          ///< has `[System]`, which then overrides all of its answers
    bool saysProxy = false;           ///< has `[Proxy]`, likewise
    bool saysConnections = false;     ///< has `[Connections]`, or a `[Connection NAME]`
    std::vector<std::string> kindOne; ///< `[NetworkManager] KindOne`; empty: the usual types
    bool flagMetered = false;         ///< `[NetworkManager] FlagMetered`
};

/// Reads the text of a platform file.
/// @return nothing when the text is not a key file or a value is not of its key's type: such a text
///         is taken to be half-written, and no part of it is used.
std::optional<Settings> parseSettings(std::string_view text);

/// The text without comments, which GLib does not know, and with the same lines. A comment begins
/// with a ';' behind a space, a tab or the beginning of a line. A ';' that ends a name in a list
/// follows the name directly.
std::string withoutTrailingComments(std::string_view text);

/// Whether a group of this name is about connections.
bool isConnectionGroup(std::string_view name);

} // namespace trilba
