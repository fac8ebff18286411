#include "network/OrvexNetworkManager.h"

#include "protocol/Codes.h"
#include "support/Deployment.h"

#include <algorithm>
#include <cstring>
#include <trilba/network/ProxyQuery.h>

namespace orvexd {

using trilba::network::ConnectionInfo;
using trilba::network::IConnectionManager;
using trilba::network::ProxyQuery;

namespace {

constexpr std::uint32_t kProxyQuerySize = 140;
constexpr std::uint32_t kPresetProxyPort = 8080;

static_assert(sizeof(ProxyQuery) == kProxyQuerySize, "fixed layout of the platform");

std::uint32_t statusOf(const ConnectionInfo& active) {
    if (active.kind == 1) {
        return StatusConnected | StatusKindOne;
    }
    if (active.kind == 2 && !active.flagged) {
        return StatusConnected;
    }
    return StatusConnected | StatusFlagged;
}

} // namespace

OrvexNetworkManager::OrvexNetworkManager(INetworkOwner& owner)
    : owner_(owner), mainThread_(std::this_thread::get_id()) {}

OrvexNetworkManager::~OrvexNetworkManager() {
    // Before all members: the platform calls this object until its manager is gone.
    connectionManager_.reset();
}

void OrvexNetworkManager::start() {
    mainThread_ = std::this_thread::get_id();
    connectionManager_.reset(IConnectionManager::create(nullptr));
    if (!connectionManager_) {
        return;
    }
    connectionManager_->registerObserver(this);
    readConnections();
}

void OrvexNetworkManager::readConnections() {
    connections_.clear();
    if (connectionManager_) {
        connectionManager_->getConnections(connections_);
    }
}

void OrvexNetworkManager::onConnectionsChanged() {
    if (std::this_thread::get_id() == mainThread_) {
        refreshAndReport();
    } else {
        postToMainLoop(lifetime_, [this] { refreshAndReport(); });
    }
}

void OrvexNetworkManager::refreshAndReport() {
    readConnections();
    owner_.onConnectionStatus(currentStatus(), true);
    (void)recheck();
    owner_.requestFreshConnect();
}

bool OrvexNetworkManager::recheck() {
    if (hasActiveConnection()) {
        owner_.onNetworkAvailable();
    } else {
        owner_.onConnectionLost();
    }
    return true;
}

bool OrvexNetworkManager::hasActiveConnection() const {
    return std::any_of(connections_.begin(), connections_.end(),
                       [](const ConnectionInfo& entry) { return entry.active; });
}

bool OrvexNetworkManager::hasFlaggedConnection() const {
    return std::any_of(connections_.begin(), connections_.end(),
                       [](const ConnectionInfo& entry) { return entry.flagged; });
}

std::uint32_t OrvexNetworkManager::currentStatus() const {
    const auto active = std::find_if(connections_.begin(), connections_.end(),
                                     [](const ConnectionInfo& entry) { return entry.active; });
    return active == connections_.end() ? 0 : statusOf(*active);
}

std::string OrvexNetworkManager::proxyFor() const {
    // The worker may use the pointer: it does not change between start and the destructor.
    if (!connectionManager_) {
        return {};
    }
    ProxyQuery query{}; // the host begins as NUL bytes
    query.size = kProxyQuerySize;
    query.port = kPresetProxyPort;
    if (connectionManager_->lookUpProxy(deployment::kServerUrl, &query) != 0) {
        return {};
    }
    // The platform may have filled the host to its last byte.
    std::string proxy(query.host, strnlen(query.host, sizeof query.host));
    proxy += ':';
    proxy += std::to_string(query.port);
    return proxy;
}

} // namespace orvexd
