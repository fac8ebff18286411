// From a network service's view to the platform's list.

#include "live/Mapping.h"

#include <gtest/gtest.h>

namespace trilba::live {

namespace {

constexpr const char* kEthernet = "802-3-ethernet";
constexpr const char* kWifi = "802-11-wireless";

ConnectionFacts way(const std::string& type) {
    ConnectionFacts facts;
    facts.id = "/" + type;
    facts.name = type;
    facts.type = type;
    facts.hasDefaultRoute = true;
    return facts;
}

ConnectionFacts primary(const std::string& type) {
    ConnectionFacts facts = way(type);
    facts.isPrimary = true;
    return facts;
}

ConnectionFacts metered(const std::string& type, Metered value) {
    ConnectionFacts facts = primary(type);
    facts.metered = value;
    return facts;
}

ConnectionFacts roaming(const std::string& type, Metered value = Metered::Unknown) {
    ConnectionFacts facts = metered(type, value);
    facts.roaming = Roaming::Yes;
    return facts;
}

ConnectionFacts maybeRoaming(const std::string& type) {
    ConnectionFacts facts = primary(type);
    facts.roaming = Roaming::Unknown;
    return facts;
}

ConnectionFacts over(const std::string& type, std::vector<std::string> lower) {
    ConnectionFacts facts = primary(type);
    facts.lowerTypes = std::move(lower);
    return facts;
}

ConnectionFacts in(Phase phase, ConnectionFacts facts) {
    facts.phase = phase;
    return facts;
}

NetworkFacts network(std::vector<ConnectionFacts> connections) {
    return {true, Reach::Global, false, std::move(connections)};
}

/// The list in short: "name:kind", "+" when active, "!" when flagged.
std::string shortList(const NetworkFacts& facts, const MappingOptions& options = {}) {
    std::string text;
    for (const auto& entry : connectionsOf(facts, options)) {
        text += (text.empty() ? "" : " ") + entry.name + ':' + std::to_string(entry.kind) +
                (entry.active ? "+" : "") + (entry.flagged ? "!" : "");
    }
    return text;
}

struct Row {
    const char* name;
    ConnectionFacts connection;
    MappingOptions options;
    const char* list;
};

void PrintTo(const Row& row, std::ostream* out) {
    *out << row.name;
}

class KindTable : public ::testing::TestWithParam<Row> {};

TEST_P(KindTable, OfOneConnection) {
    EXPECT_EQ(shortList(network({GetParam().connection}), GetParam().options), GetParam().list);
}

const MappingOptions kFlag{{}, true};
const MappingOptions kOnlyWifi{{"wifi"}, false};
const MappingOptions kWithGsm{{kEthernet, "gsm"}, false};

INSTANTIATE_TEST_SUITE_P(
    Types, KindTable,
    ::testing::Values(
        Row{"ethernet", primary(kEthernet), {}, "802-3-ethernet:1+"},
        Row{"wifi", primary(kWifi), {}, "802-11-wireless:1+"},
        Row{"virtual cable", primary("veth"), {}, "veth:1+"},
        Row{"gsm", primary("gsm"), {}, "gsm:2+"}, Row{"cdma", primary("cdma"), {}, "cdma:2+"},
        Row{"bluetooth", primary("bluetooth"), {}, "bluetooth:2+"},
        Row{"pppoe", primary("pppoe"), {}, "pppoe:2+"},
        Row{"infiniband", primary("infiniband"), {}, "infiniband:2+"},
        Row{"unknown", primary("generic"), {}, "generic:2+"},
        Row{"bridge over ethernet", over("bridge", {kEthernet}), {}, "bridge:1+"},
        Row{"bridge with cables of machines", over("bridge", {"tun", kEthernet}), {}, "bridge:1+"},
        Row{"bridge over nothing", over("bridge", {}), {}, "bridge:2+"},
        Row{"bridge with a modem", over("bridge", {kEthernet, "gsm"}), {}, "bridge:2+"},
        Row{"bond over wifi", over("bond", {kWifi, kEthernet}), {}, "bond:1+"},
        Row{"team", over("team", {kEthernet}), {}, "team:1+"},
        Row{"vlan over ethernet", over("vlan", {kEthernet}), {}, "vlan:1+"},
        Row{"vlan over bluetooth", over("vlan", {"bluetooth"}), {}, "vlan:2+"},
        Row{"gsm over ethernet is no bridge", over("gsm", {kEthernet}), {}, "gsm:2+"}));

INSTANTIATE_TEST_SUITE_P(
    Costs, KindTable,
    ::testing::Values(
        Row{"yes", metered(kWifi, Metered::Yes), {}, "802-11-wireless:2+"},
        Row{"guess yes", metered(kWifi, Metered::GuessYes), {}, "802-11-wireless:2+"},
        Row{"no", metered(kWifi, Metered::No), {}, "802-11-wireless:1+"},
        Row{"guess no", metered(kWifi, Metered::GuessNo), {}, "802-11-wireless:1+"},
        Row{"gsm without costs", metered("gsm", Metered::No), {}, "gsm:2+"},
        Row{"flagged", metered(kWifi, Metered::Yes), kFlag, "802-11-wireless:2+!"},
        Row{"flagged by a guess", metered("gsm", Metered::GuessYes), kFlag, "gsm:2+!"},
        Row{"kind 1 has no flag", metered(kWifi, Metered::No), kFlag, "802-11-wireless:1+"},
        Row{"roaming", roaming("gsm"), {}, "gsm:2+!"},
        Row{"perhaps roaming", maybeRoaming("gsm"), {}, "gsm:2+!"},
        Row{"roaming as kind 1", roaming("gsm"), kWithGsm, "gsm:1+"},
        Row{"roaming and metered", roaming("gsm", Metered::Yes), kWithGsm, "gsm:2+!"}));

INSTANTIATE_TEST_SUITE_P(
    KindOne, KindTable,
    ::testing::Values(Row{"short name", primary(kWifi), kOnlyWifi, "802-11-wireless:1+"},
                      Row{"not named", primary(kEthernet), kOnlyWifi, "802-3-ethernet:2+"},
                      Row{"modem", primary("gsm"), kWithGsm, "gsm:1+"},
                      Row{"below a bridge", over("bridge", {kEthernet}), kOnlyWifi, "bridge:2+"},
                      Row{"bridge by name", over("bridge", {}), {{"bridge"}, false}, "bridge:1+"}));

TEST(Mapping, ListsThePrimaryFirstAndThenWhatHasADefaultRoute) {
    EXPECT_EQ(shortList(network({way(kWifi), primary("gsm")})), "gsm:2+ 802-11-wireless:1+");
}

TEST(Mapping, LeavesOutWhatLeadsNowhere) {
    ConnectionFacts local = way(kEthernet);
    local.hasDefaultRoute = false;
    EXPECT_EQ(shortList(network({local})), "");
}

TEST(Mapping, PrimaryCountsWithoutADefaultRoute) {
    ConnectionFacts facts = primary(kEthernet);
    facts.hasDefaultRoute = false;
    EXPECT_EQ(shortList(network({facts})), "802-3-ethernet:1+");
}

TEST(Mapping, OfAVpnCountsTheConnectionBelow) {
    ConnectionFacts vpn = way("vpn");
    vpn.isVpn = true;
    EXPECT_EQ(shortList(network({vpn, primary("gsm")})), "gsm:2+");
}

TEST(Mapping, OfATunnelThatIsPrimaryCountsTheConnectionBelow) {
    EXPECT_EQ(shortList(network({primary("wireguard"), way(kWifi)})), "802-11-wireless:1+");
}

TEST(Mapping, BelowATunnelTheBestRouteIsTheFirst) {
    ConnectionFacts gsm = way("gsm");
    ConnectionFacts wifi = way(kWifi);
    gsm.metric = 700;
    wifi.metric = 600;
    EXPECT_EQ(shortList(network({way(kEthernet), gsm, primary("wireguard"), wifi})),
              "802-11-wireless:1+ gsm:2+ 802-3-ethernet:1+");
}

TEST(Mapping, TunnelAloneCounts) {
    EXPECT_EQ(shortList(network({primary("wireguard")})), "wireguard:2+");
}

TEST(Mapping, ConnectionThatComesUpIsNotActive) {
    EXPECT_EQ(shortList(network({in(Phase::Activating, way(kWifi)), primary("gsm")})),
              "gsm:2+ 802-11-wireless:1");
}

TEST(Mapping, ConnectionThatGoesDownIsGone) {
    EXPECT_EQ(shortList(network({in(Phase::Other, primary(kWifi))})), "");
}

TEST(Mapping, NothingIsActiveUntilTheServiceSaysSo) {
    NetworkFacts facts = network({primary(kWifi)});
    facts.reach = Reach::None;
    EXPECT_EQ(shortList(facts), "802-11-wireless:1");
    facts.reach = Reach::Site; // limited connectivity, too
    EXPECT_EQ(shortList(facts), "802-11-wireless:1+");
}

TEST(Mapping, NothingIsActiveBehindALogin) {
    NetworkFacts facts = network({primary(kWifi)});
    facts.reach = Reach::Site;
    facts.isBehindPortal = true;
    EXPECT_EQ(shortList(facts), "802-11-wireless:1");
}

TEST(Mapping, NothingIsThereWithoutTheService) {
    EXPECT_EQ(shortList(NetworkFacts{}), "");
}

TEST(Mapping, OnlyTheConnectionInUseIsFlagged) {
    ConnectionFacts reserve = roaming("gsm");
    reserve.isPrimary = false;
    EXPECT_EQ(shortList(network({primary(kWifi), reserve})), "802-11-wireless:1+ gsm:2+");
    EXPECT_EQ(shortList(network({in(Phase::Activating, roaming("gsm"))})), "gsm:2");
}

TEST(Mapping, RoamingStatesAreThoseOfModemManager) {
    std::vector<unsigned> roamingStates;
    for (unsigned state = 0; state < 20; ++state) {
        if (isRoamingState(state)) {
            roamingStates.push_back(state);
        }
    }
    EXPECT_EQ(roamingStates, (std::vector<unsigned>{5, 7, 10}));
}

TEST(Mapping, IdentityChangesWithTheListAndWithANewActivation) {
    const NetworkFacts facts = network({primary(kWifi)});
    NetworkFacts again = facts;
    EXPECT_EQ(identityOf(facts, {}), identityOf(again, {}));
    again.connections[0].id = "/another";
    EXPECT_NE(identityOf(facts, {}), identityOf(again, {}));
    EXPECT_NE(identityOf(facts, {}), identityOf(facts, {{"gsm"}, false}));
    EXPECT_NE(identityOf(network({roaming("gsm")}), {}), identityOf(network({primary("gsm")}), {}));
}

TEST(Mapping, IsIncompleteWhileTheRegistrationOfAWayOutIsUnknown) {
    EXPECT_TRUE(isIncomplete(network({maybeRoaming("gsm")})));
    EXPECT_FALSE(isIncomplete(network({roaming("gsm"), primary(kWifi)})));
    EXPECT_FALSE(isIncomplete(network({in(Phase::Other, maybeRoaming("gsm"))})));
}

TEST(Mapping, ConnectionThatComesUpMayTakeOver) {
    const NetworkFacts facts = network({in(Phase::Activating, way("gsm"))});
    EXPECT_TRUE(mayTakeOver(facts, "/lost"));
    EXPECT_FALSE(mayTakeOver(network({in(Phase::Activating, way("vpn"))}), "/lost"));
    EXPECT_FALSE(mayTakeOver(network({in(Phase::Other, way("gsm"))}), "/lost"));
}

TEST(Mapping, OtherConnectionThatLeadsOutMayTakeOver) {
    NetworkFacts facts = network({primary("gsm")});
    facts.reach = Reach::None; // as yet
    EXPECT_TRUE(mayTakeOver(facts, "/lost"));
    facts.connections[0].hasDefaultRoute = false;
    EXPECT_FALSE(mayTakeOver(facts, "/lost"));
}

TEST(Mapping, ConnectionThatLeadsNowhereAnyMoreDoesNotTakeOverFromItself) {
    NetworkFacts facts = network({primary("gsm")});
    const std::string lost = inUse(facts, {});
    EXPECT_EQ(lost, "/gsm");
    facts.isBehindPortal = true;
    EXPECT_EQ(inUse(facts, {}), "");
    EXPECT_FALSE(mayTakeOver(facts, lost));
}

} // namespace

} // namespace trilba::live
