#pragma once

#include "live/NetworkFacts.h"
#include "trilba/network/ConnectionInfoContainer.h"

#include <string>
#include <string_view>
#include <vector>

namespace trilba::live {

/// What an integrator may choose.
struct MappingOptions {
    std::vector<std::string> kindOne; ///< types of kind 1; empty: Ethernet and Wi-Fi
    bool flagMetered = false;         ///< whether a metered connection of kind 2 is flagged
};

/// The platform's list for what a network service tells: the connections that carry a default
/// route, the primary one first. A tunnel counts only when nothing else is there.
network::ConnectionInfoContainer connectionsOf(const NetworkFacts& facts,
                                               const MappingOptions& options);

/// Changes when the list changes or a connection in it was brought up anew.
std::string identityOf(const NetworkFacts& facts, const MappingOptions& options);

/// Whether more is being asked about what is in the list.
bool isIncomplete(const NetworkFacts& facts);

/// Identifies the connection in use; empty without one.
std::string inUse(const NetworkFacts& facts, const MappingOptions& options);

/// Whether a connection may soon take the place of `lost`, the one that was in use: it is being
/// brought up, or it is up and the service has not yet found out that it leads out.
bool mayTakeOver(const NetworkFacts& facts, const std::string& lost);

/// The long name of a type that is known by a short one: "wifi" is "802-11-wireless".
std::string longTypeName(std::string_view type);

/// Whether a 3GPP registration state of ModemManager means a foreign network.
bool isRoamingState(unsigned state);

} // namespace trilba::live
