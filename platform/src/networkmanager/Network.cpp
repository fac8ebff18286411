#include "networkmanager/Network.h"

#include "live/Mapping.h"

#include <algorithm>

namespace trilba::live {

namespace {

constexpr int kMostLevels = 8; // of devices over devices

template <typename T> std::vector<T*> elementsOf(const GPtrArray* array) {
    std::vector<T*> elements;
    for (guint i = 0; array != nullptr && i < array->len; ++i) {
        elements.push_back(static_cast<T*>(g_ptr_array_index(array, i)));
    }
    return elements;
}

std::vector<NMDevice*> lowerDevices(NMDevice* device) {
    if (NM_IS_DEVICE_VLAN(device)) {
        NMDevice* parent = nm_device_vlan_get_parent(NM_DEVICE_VLAN(device));
        return parent == nullptr ? std::vector<NMDevice*>() : std::vector<NMDevice*>{parent};
    }
    if (NM_IS_DEVICE_MACVLAN(device)) {
        NMDevice* parent = nm_device_macvlan_get_parent(NM_DEVICE_MACVLAN(device));
        return parent == nullptr ? std::vector<NMDevice*>() : std::vector<NMDevice*>{parent};
    }
    return elementsOf<NMDevice>(nm_device_get_ports(device));
}

void addLowest(NMDevice* device, int levels, std::vector<std::string>& types) {
    const auto lower = levels > 0 ? lowerDevices(device) : std::vector<NMDevice*>();
    for (NMDevice* each : lower) {
        addLowest(each, levels - 1, types);
    }
    if (lower.empty()) {
        types.push_back(longTypeName(textOf(nm_device_get_type_description(device))));
    }
}

std::vector<std::string> lowerTypesOf(NMDevice* device) {
    std::vector<std::string> types;
    for (NMDevice* each : lowerDevices(device)) {
        addLowest(each, kMostLevels, types);
    }
    return types;
}

Metered meteredOf(NMDevice* device) {
    switch (nm_device_get_metered(device)) {
    case NM_METERED_YES:
        return Metered::Yes;
    case NM_METERED_NO:
        return Metered::No;
    case NM_METERED_GUESS_YES:
        return Metered::GuessYes;
    case NM_METERED_GUESS_NO:
        return Metered::GuessNo;
    case NM_METERED_UNKNOWN:
        break;
    }
    return Metered::Unknown;
}

Phase phaseOf(NMActiveConnection* connection) {
    switch (nm_active_connection_get_state(connection)) {
    case NM_ACTIVE_CONNECTION_STATE_ACTIVATING:
        return Phase::Activating;
    case NM_ACTIVE_CONNECTION_STATE_ACTIVATED:
        return Phase::Activated;
    default:
        return Phase::Other;
    }
}

Reach reachOf(NMState state) {
    if (state >= NM_STATE_CONNECTED_GLOBAL) {
        return Reach::Global;
    }
    return state >= NM_STATE_CONNECTED_SITE ? Reach::Site : Reach::None;
}

std::vector<NMDevice*> devicesOf(NMActiveConnection* connection) {
    return elementsOf<NMDevice>(nm_active_connection_get_devices(connection));
}

std::vector<NMIPConfig*> configsOf(NMActiveConnection* connection) {
    std::vector<NMIPConfig*> configs;
    for (NMIPConfig* config : {nm_active_connection_get_ip4_config(connection),
                               nm_active_connection_get_ip6_config(connection)}) {
        if (config != nullptr) {
            configs.push_back(config);
        }
    }
    return configs;
}

struct ModemsNow {
    bool areKnown;
    std::map<std::string, ModemFacts> facts;
};

bool hasGateway(NMActiveConnection* connection) {
    const auto configs = configsOf(connection);
    return std::any_of(configs.begin(), configs.end(), [](NMIPConfig* config) {
        return nm_ip_config_get_gateway(config) != nullptr;
    });
}

/// Of the best default route.
std::int64_t metricOf(NMActiveConnection* connection) {
    std::int64_t best = ConnectionFacts::kNoMetric;
    for (NMIPConfig* config : configsOf(connection)) {
        for (NMIPRoute* route : elementsOf<NMIPRoute>(nm_ip_config_get_routes(config))) {
            const std::int64_t metric = nm_ip_route_get_metric(route);
            if (nm_ip_route_get_prefix(route) == 0 && metric >= 0) {
                best = std::min(best, metric);
            }
        }
    }
    return best;
}

/// Modem devices have the paths of ModemManager's modems.
Roaming roamingOf(NMDevice* device, const std::string& type, const ModemsNow& modems) {
    const auto modem = modems.facts.find(textOf(nm_device_get_udi(device)));
    if (modem != modems.facts.end()) {
        return isRoamingState(modem->second.registration) ? Roaming::Yes : Roaming::No;
    }
    return type == NM_SETTING_GSM_SETTING_NAME && !modems.areKnown ? Roaming::Unknown : Roaming::No;
}

/// When NetworkManager has not answered in time, the library goes on as if it had told nothing, and
/// never asks again.
bool isEmpty(NMClient* client) {
    return nm_client_get_nm_running(client) && nm_client_get_version(client) == nullptr;
}

ConnectionFacts factsOf(NMActiveConnection* connection, bool isPrimary, const ModemsNow& modems) {
    ConnectionFacts facts;
    facts.id = textOf(nm_object_get_path(NM_OBJECT(connection)));
    facts.name = textOf(nm_active_connection_get_id(connection));
    facts.type = textOf(nm_active_connection_get_connection_type(connection));
    facts.phase = phaseOf(connection);
    facts.isPrimary = isPrimary;
    // Of several default routes the service calls only the best one so.
    facts.hasDefaultRoute = nm_active_connection_get_default(connection) ||
                            nm_active_connection_get_default6(connection) || hasGateway(connection);
    facts.metric = metricOf(connection);
    facts.isVpn = nm_active_connection_get_vpn(connection);
    for (NMDevice* device : devicesOf(connection)) {
        facts.lowerTypes = lowerTypesOf(device);
        facts.metered = meteredOf(device);
        facts.roaming = roamingOf(device, facts.type, modems);
    }
    return facts;
}

} // namespace

Network::Network(GDBusConnection* bus, std::function<void()> onChange)
    : bus_(shared(bus)),
      onChange_(std::move(onChange)),
      lookSoon_([this] { look(); }),
      askAgain_([this] { ask(); }) {
    ask();
}

void Network::ask() {
    g_async_initable_new_async(
        NM_TYPE_CLIENT, G_PRIORITY_DEFAULT, pending_.cancellable(), &PendingAnswers::arrive,
        pending_.expect([this](GObject* source, GAsyncResult* result) {
            static_cast<void>(source);
            onClient(result);
        }),
        NM_CLIENT_DBUS_CONNECTION, bus_.get(), NM_CLIENT_INSTANCE_FLAGS,
        static_cast<guint>(NM_CLIENT_INSTANCE_FLAGS_NO_AUTO_FETCH_PERMISSIONS), nullptr);
}

void Network::onClient(GAsyncResult* result) {
    client_.reset(nm_client_new_finish(result, nullptr));
    if (client_) {
        look();
    } else {
        askLater();
    }
}

void Network::askLater() {
    askAgain_.runAt(g_get_monotonic_time() + kPauseBeforeAskingAgain);
}

void Network::listen(gpointer object, const char* signal) {
    const auto onNotify = +[](GObject*, GParamSpec*, gpointer self) noexcept {
        static_cast<Network*>(self)->lookSoon_.runAt(0);
    };
    handlers_.emplace_back(object, signal, G_CALLBACK(onNotify), this);
}

/// Listens to all that there is now. Handlers come and go with the objects.
void Network::look() {
    if (isEmpty(client_.get())) {
        handlers_.clear();
        client_.reset();
        askLater();
        onChange_();
        return;
    }
    const auto old = std::exchange(handlers_, {});
    for (const char* signal :
         {"notify::" NM_CLIENT_NM_RUNNING, "notify::" NM_CLIENT_STATE,
          "notify::" NM_CLIENT_CONNECTIVITY, "notify::" NM_CLIENT_CONNECTIVITY_CHECK_ENABLED,
          "notify::" NM_CLIENT_PRIMARY_CONNECTION, "notify::" NM_CLIENT_ACTIVE_CONNECTIONS}) {
        listen(client_.get(), signal);
    }
    for (auto* connection :
         elementsOf<NMActiveConnection>(nm_client_get_active_connections(client_.get()))) {
        for (const char* signal :
             {"notify::" NM_ACTIVE_CONNECTION_STATE, "notify::" NM_ACTIVE_CONNECTION_DEFAULT,
              "notify::" NM_ACTIVE_CONNECTION_DEFAULT6, "notify::" NM_ACTIVE_CONNECTION_DEVICES,
              "notify::" NM_ACTIVE_CONNECTION_IP4_CONFIG,
              "notify::" NM_ACTIVE_CONNECTION_IP6_CONFIG}) {
            listen(connection, signal);
        }
        for (NMIPConfig* config : configsOf(connection)) {
            listen(config, "notify::" NM_IP_CONFIG_GATEWAY);
            listen(config, "notify::" NM_IP_CONFIG_ROUTES);
        }
        for (NMDevice* device : devicesOf(connection)) {
            listen(device, "notify::" NM_DEVICE_METERED);
            listen(device, "notify::" NM_DEVICE_UDI);
            listenBelow(device, kMostLevels);
        }
    }
    onChange_();
}

/// What changes the devices below a device.
void Network::listenBelow(NMDevice* device, int levels) {
    listen(device, "notify::" NM_DEVICE_PORTS);
    if (NM_IS_DEVICE_VLAN(device)) {
        listen(device, "notify::" NM_DEVICE_VLAN_PARENT);
    }
    if (NM_IS_DEVICE_MACVLAN(device)) {
        listen(device, "notify::" NM_DEVICE_MACVLAN_PARENT);
    }
    for (NMDevice* each : levels > 0 ? lowerDevices(device) : std::vector<NMDevice*>()) {
        listenBelow(each, levels - 1);
    }
}

NetworkFacts Network::facts(const Modems& modems) const {
    NetworkFacts facts;
    if (!client_ || !nm_client_get_nm_running(client_.get())) {
        return facts;
    }
    facts.isRunning = true;
    facts.reach = reachOf(nm_client_get_state(client_.get()));
    facts.isBehindPortal = nm_client_connectivity_check_get_enabled(client_.get()) &&
                           nm_client_get_connectivity(client_.get()) == NM_CONNECTIVITY_PORTAL;
    const ModemsNow modemsNow{modems.areKnown(), modems.facts()};
    const NMActiveConnection* primary = nm_client_get_primary_connection(client_.get());
    for (auto* connection :
         elementsOf<NMActiveConnection>(nm_client_get_active_connections(client_.get()))) {
        facts.connections.push_back(factsOf(connection, connection == primary, modemsNow));
    }
    return facts;
}

} // namespace trilba::live
