#include "live/Mapping.h"

#include <algorithm>
#include <array>
#include <utility>

namespace trilba::live {

namespace {

constexpr std::string_view kEthernet = "802-3-ethernet";
constexpr std::string_view kWifi = "802-11-wireless";

/// Short names of people and of devices, and the long ones of connections.
constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kLongNames{{
    {"ethernet", kEthernet},
    {"veth", kEthernet}, // a virtual cable
    {"wifi", kWifi},
    {"bt", "bluetooth"},
}};

/// Kinds of the platform.
constexpr int kUnmetered = 1;
constexpr int kOther = 2;

template <typename Range, typename Value> bool contains(const Range& range, const Value& value) {
    return std::find(std::begin(range), std::end(range), value) != std::end(range);
}

/// Such a device has no medium of its own.
bool isOverOthers(std::string_view type) {
    constexpr std::array<std::string_view, 5> kTypes{"bridge", "bond", "team", "vlan", "macvlan"};
    return contains(kTypes, type);
}

/// Media that cost, or may: one of them below a bridge decides.
bool isMobile(std::string_view type) {
    constexpr std::array<std::string_view, 3> kTypes{"gsm", "cdma", "bluetooth"};
    return contains(kTypes, type);
}

bool isMetered(const ConnectionFacts& connection) {
    return connection.metered == Metered::Yes || connection.metered == Metered::GuessYes;
}

bool isKindOneType(std::string_view type, const MappingOptions& options) {
    const std::string name = longTypeName(type);
    if (options.kindOne.empty()) {
        return name == kEthernet || name == kWifi;
    }
    return std::any_of(options.kindOne.begin(), options.kindOne.end(),
                       [&](const std::string& one) { return longTypeName(one) == name; });
}

/// A bridge may have the cables of virtual machines in it beside the one that leads out.
bool isOverKindOne(const ConnectionFacts& connection, const MappingOptions& options) {
    const auto& lower = connection.lowerTypes;
    return isOverOthers(connection.type) && std::none_of(lower.begin(), lower.end(), isMobile) &&
           std::any_of(lower.begin(), lower.end(),
                       [&](const std::string& type) { return isKindOneType(type, options); });
}

int kindOf(const ConnectionFacts& connection, const MappingOptions& options) {
    const bool isFree = !isMetered(connection) && (isKindOneType(connection.type, options) ||
                                                   isOverKindOne(connection, options));
    return isFree ? kUnmetered : kOther;
}

bool isTunnel(const ConnectionFacts& connection) {
    constexpr std::array<std::string_view, 5> kTypes{"vpn", "wireguard", "tun", "ip-tunnel",
                                                     "vxlan"};
    return connection.isVpn || contains(kTypes, connection.type);
}

using Connections = std::vector<const ConnectionFacts*>;

/// What leads out, in the platform's order.
Connections waysOut(const NetworkFacts& facts) {
    Connections ways;
    for (const ConnectionFacts& connection : facts.connections) {
        if (connection.phase != Phase::Other &&
            (connection.isPrimary || connection.hasDefaultRoute)) {
            ways.push_back(&connection);
        }
    }
    const auto carries = [](const ConnectionFacts* way) { return !isTunnel(*way); };
    if (std::any_of(ways.begin(), ways.end(), carries)) {
        std::erase_if(ways, [](const ConnectionFacts* way) { return isTunnel(*way); });
    }
    // None is primary when a tunnel is.
    std::stable_sort(ways.begin(), ways.end(),
                     [](const ConnectionFacts* left, const ConnectionFacts* right) {
                         return left->isPrimary != right->isPrimary ? left->isPrimary
                                                                    : left->metric < right->metric;
                     });
    return ways;
}

bool isConnected(const NetworkFacts& facts) {
    return facts.isRunning && facts.reach != Reach::None && !facts.isBehindPortal;
}

network::ConnectionInfoContainer listOf(const Connections& ways, const NetworkFacts& facts,
                                        const MappingOptions& options) {
    network::ConnectionInfoContainer list;
    bool isInUse = true; // only the first active one is; another's flag would hold requests back
    for (const ConnectionFacts* way : ways) {
        const bool active = way->phase == Phase::Activated && isConnected(facts);
        const int kind = kindOf(*way, options);
        // As long as nobody knows, it may cost.
        const bool restricted =
            way->roaming != Roaming::No || (options.flagMetered && isMetered(*way));
        list.add({way->name, kind, active, active && isInUse && kind == kOther && restricted});
        isInUse = isInUse && !active;
    }
    return list;
}

} // namespace

std::string longTypeName(std::string_view type) {
    const auto* const known = std::find_if(kLongNames.begin(), kLongNames.end(),
                                           [&](const auto& pair) { return pair.first == type; });
    return std::string(known == kLongNames.end() ? type : known->second);
}

bool isRoamingState(unsigned state) {
    // MM_MODEM_3GPP_REGISTRATION_STATE_ROAMING, ..._SMS_ONLY, ..._CSFB_NOT_PREFERRED
    constexpr std::array<unsigned, 3> kRoaming{5, 7, 10};
    return contains(kRoaming, state);
}

network::ConnectionInfoContainer connectionsOf(const NetworkFacts& facts,
                                               const MappingOptions& options) {
    return listOf(waysOut(facts), facts, options);
}

std::string identityOf(const NetworkFacts& facts, const MappingOptions& options) {
    const Connections ways = waysOut(facts);
    const auto list = listOf(ways, facts, options);
    std::string identity;
    for (std::size_t i = 0; i < ways.size(); ++i) {
        const network::ConnectionInfo& entry = list.at(i);
        identity += ways[i]->id + ' ' + entry.name + ' ' + std::to_string(entry.kind) +
                    (entry.active ? " active" : "") + (entry.flagged ? " flagged" : "") + '\n';
    }
    return identity;
}

bool isIncomplete(const NetworkFacts& facts) {
    const Connections ways = waysOut(facts);
    return std::any_of(ways.begin(), ways.end(),
                       [](const ConnectionFacts* way) { return way->roaming == Roaming::Unknown; });
}

std::string inUse(const NetworkFacts& facts, const MappingOptions& options) {
    const Connections ways = waysOut(facts);
    const auto list = listOf(ways, facts, options);
    for (std::size_t i = 0; i < ways.size(); ++i) {
        if (list.at(i).active) {
            return ways[i]->id;
        }
    }
    return {};
}

bool mayTakeOver(const NetworkFacts& facts, const std::string& lost) {
    return std::any_of(
        facts.connections.begin(), facts.connections.end(), [&](const ConnectionFacts& each) {
            const bool isReady = each.phase == Phase::Activated && each.hasDefaultRoute;
            return each.id != lost && !isTunnel(each) &&
                   (each.phase == Phase::Activating || isReady);
        });
}

} // namespace trilba::live
