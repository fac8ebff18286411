#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace trilba::live {

/// What a network service says about a connection's costs.
enum class Metered { Unknown, Yes, No, GuessYes, GuessNo };

/// How far a connection has come.
enum class Phase { Activating, Activated, Other };

/// Whether a connection's modem is registered in a foreign network. Unknown: nobody has said yet.
enum class Roaming { No, Yes, Unknown };

/// A connection that is up, or is being brought up.
struct ConnectionFacts {
    std::string id;   ///< changes with each activation
    std::string name; ///< for people
    std::string type; ///< such as "802-3-ethernet"
    /// Types of the devices below a bridge, bond, team or VLAN, down to the last.
    std::vector<std::string> lowerTypes;
    Phase phase = Phase::Activated;
    bool isPrimary = false;
    bool hasDefaultRoute = false; ///< whatever its metric
    static constexpr std::int64_t kNoMetric = std::numeric_limits<std::int64_t>::max();
    std::int64_t metric = kNoMetric; ///< of its default route; the smallest is used
    bool isVpn = false;              ///< a tunnel over another connection
    Metered metered = Metered::Unknown;
    Roaming roaming = Roaming::No;
};

/// How far the machine as a whole is connected.
enum class Reach { None, Site, Global };

/// A network service's view of the machine. A new object: nothing is known.
struct NetworkFacts {
    bool isRunning = false;
    Reach reach = Reach::None;
    bool isBehindPortal = false; ///< found by connectivity checking
    std::vector<ConnectionFacts> connections;
};

} // namespace trilba::live
