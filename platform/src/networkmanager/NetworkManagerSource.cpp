#include "networkmanager/NetworkManagerSource.h"

#include "OsRelease.h"

#include <algorithm>
#include <tuple>
#include <utility>

namespace trilba::live {

namespace {

ChangeTiming::Time now() {
    return ChangeTiming::Time(g_get_monotonic_time());
}

bool hasActive(const network::ConnectionInfoContainer& list) {
    return std::any_of(list.begin(), list.end(), [](const auto& entry) { return entry.active; });
}

auto detailsOf(const Settings& settings) {
    return std::tie(settings.platformId, settings.imei, settings.imsi, settings.mmf,
                    settings.proxyHost, settings.proxyPort);
}

/// The first that has an identity speaks for the device.
ModemFacts firstModem(const std::map<std::string, ModemFacts>& modems) {
    const auto found = std::find_if(modems.begin(), modems.end(),
                                    [](const auto& each) { return !each.second.imei.empty(); });
    return found == modems.end() ? ModemFacts() : found->second;
}

} // namespace

NetworkManagerSource::NetworkManagerSource(ISourceOwner& owner)
    : owner_(owner),
      tellLater_([this] { tell(); }),
      proxy_([this] { onProxyAnswered(); }),
      bus_([this] { onBusChanged(); }) {
    state_ = std::make_shared<const Settings>(described());
}

void NetworkManagerSource::follow(const std::shared_ptr<const Settings>& file) {
    options_ = {file->kindOne, file->flagMetered};
    if (!network_) {
        return;
    }
    // Whoever changed the file may have changed the system's proxy, too.
    proxy_.ask();
    see();
    takeDetails();
}

bool NetworkManagerSource::hasAnswered() const {
    return network_ && network_->hasAnswered() && modems_->hasAnswered() && !proxy_.isPending() &&
           !timing_.due();
}

std::vector<Remark> NetworkManagerSource::remarks() const {
    std::vector<Remark> remarks;
    if (!bus_.fault().empty()) {
        remarks.push_back({"there is no system bus: " + bus_.fault()});
    } else if (!network_ || !network_->hasAnswered()) {
        remarks.push_back({"NetworkManager has not answered yet"});
    } else if (!facts().isRunning) {
        remarks.push_back({"NetworkManager does not run"});
    } else if (facts().isBehindPortal) {
        remarks.push_back({"the network wants a login and does not count as a connection"});
    }
    if (!proxy_.answer().remark.empty()) {
        remarks.push_back({proxy_.answer().remark});
    }
    return remarks;
}

void NetworkManagerSource::onBusChanged() {
    network_.reset();
    modems_.reset();
    if (bus_.connection() != nullptr) {
        modems_.emplace(bus_.connection(), [this] { onChanged(); });
        network_.emplace(bus_.connection(), [this] { onChanged(); });
    }
    onChanged();
}

void NetworkManagerSource::onChanged() {
    see();
    const auto oldRemarks = std::exchange(remarks_, remarks());
    if (takeDetails() || remarks_ != oldRemarks) {
        owner_.onSourceDetailsChanged();
    }
}

void NetworkManagerSource::onProxyAnswered() {
    onChanged();
}

NetworkFacts NetworkManagerSource::facts() const {
    return network_ ? network_->facts(*modems_) : NetworkFacts();
}

/// Everything but the list of connections, which changes only when it is told.
Settings NetworkManagerSource::described() const {
    const ModemFacts modem = modems_ ? firstModem(modems_->facts()) : ModemFacts();
    const OsRelease& system = OsRelease::ofThisSystem();
    Settings settings;
    settings.platformId = system.platformId;
    settings.imei = modem.imei;
    settings.imsi = modem.imsi;
    settings.mmf = modem.firmware.empty() ? system.firmwareId : modem.firmware;
    settings.proxyHost = proxy_.answer().host;
    settings.proxyPort = proxy_.answer().port;
    return settings;
}

/// @return whether there was anything new.
bool NetworkManagerSource::takeDetails() {
    Settings settings = described();
    if (detailsOf(settings) == detailsOf(*state_)) {
        return false;
    }
    settings.connections = state_->connections;
    state_ = std::make_shared<const Settings>(std::move(settings));
    return true;
}

void NetworkManagerSource::see() {
    const NetworkFacts seen = facts();
    const bool isConnected = hasActive(connectionsOf(seen, options_));
    std::string identity = identityOf(seen, options_);
    if (isConnected && identity != identity_) {
        proxy_.ask();
    }
    identity_ = identity;
    // Whoever restarts NetworkManager leaves the network as it is.
    const bool isHandover = mayTakeOver(seen, inUse_) || !seen.isRunning;
    const bool isStillAsking = proxy_.isPending() || isIncomplete(seen);
    timing_.see({std::move(identity), isConnected, isHandover, isStillAsking}, now());
    if (const auto due = timing_.due()) {
        tellLater_.runAt(due->count());
    } else {
        tellLater_.stop();
    }
}

/// Tells what there is now, unless that gives a reason to wait again.
void NetworkManagerSource::tell() {
    see();
    const auto due = timing_.due();
    if (!due || *due > now()) {
        return;
    }
    tellLater_.stop();
    timing_.tell();
    const NetworkFacts told = facts();
    inUse_ = inUse(told, options_);
    Settings settings = described();
    settings.connections = connectionsOf(told, options_);
    state_ = std::make_shared<const Settings>(std::move(settings));
    owner_.onSourceChanged();
}

} // namespace trilba::live
