#include "ConnectionManager.h"

#include "LibraryMutex.h"
#include "PlatformFile.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <utility>

namespace trilba::network {

IConnectionManager* IConnectionManager::create(INetworkAdaptation* /*adaptation*/) {
    return std::make_unique<ConnectionManager>().release();
}

// The watch comes before the first reading: no change can fall between them.
ConnectionManager::ConnectionManager()
    : path_(PlatformFile::path()), watcher_(path_, [this] { onFileChanged(); }) {
    readList();
}

void ConnectionManager::getConnections(ConnectionInfoContainer& connections) {
    connections = latest()->connections;
}

std::size_t ConnectionManager::connectionCount() {
    return latest()->connections.size();
}

bool ConnectionManager::hasActiveConnection() {
    const auto settings = latest();
    return std::any_of(settings->connections.begin(), settings->connections.end(),
                       [](const ConnectionInfo& entry) { return entry.active; });
}

void ConnectionManager::registerObserver(IConnectionManagerObserver* observer) {
    const std::lock_guard hold(libraryMutex());
    if (observer != nullptr && !isRegistered(observer)) {
        observers_.push_back(observer);
    }
}

void ConnectionManager::unregisterObserver(IConnectionManagerObserver* observer) {
    const std::lock_guard hold(libraryMutex());
    std::erase(observers_, observer);
}

bool ConnectionManager::findConnection(const std::string& name, ConnectionInfo& connection) {
    const auto settings = latest();
    const auto found =
        std::find_if(settings->connections.begin(), settings->connections.end(),
                     [&](const ConnectionInfo& entry) { return entry.name == name; });
    if (found == settings->connections.end()) {
        return false;
    }
    connection = *found;
    return true;
}

int ConnectionManager::lookUpProxy(const std::string& /*url*/, ProxyQuery* query) {
    if (query == nullptr || query->size != sizeof(ProxyQuery)) {
        return kProxyBadQuery;
    }
    const auto settings = PlatformFile::read(path_).settings;
    const std::string& host = settings->proxyHost;
    if (host.empty()) {
        return kProxyNone;
    }
    if (host.size() >= ProxyQuery::kHostCapacity) {
        return kProxyHostTooLong;
    }
    std::memset(query->host, 0, sizeof query->host);
    std::memcpy(query->host, host.data(), host.size());
    query->port = settings->proxyPort.value_or(query->port);
    return kProxyFound;
}

void ConnectionManager::onFileChanged() {
    readList();
    notify();
}

void ConnectionManager::readList() {
    auto [settings, lookAgain] = PlatformFile::read(path_);
    if (lookAgain) {
        watcher_.lookAgainIn(PlatformFile::kEmptyCountsAsHalfWritten);
    }
    const std::lock_guard hold(libraryMutex());
    settings_ = std::move(settings);
}

void ConnectionManager::notify() {
    const std::weak_ptr<const bool> alive = alive_;
    std::vector<IConnectionManagerObserver*> observers;
    {
        const std::lock_guard hold(libraryMutex());
        observers = observers_;
    }
    for (IConnectionManagerObserver* observer : observers) {
        {
            const std::lock_guard hold(libraryMutex());
            if (!isRegistered(observer)) {
                continue;
            }
        }
        observer->onConnectionsChanged();
        if (alive.expired()) { // the observer deleted the manager
            return;
        }
    }
}

/// To be called with the library mutex held.
bool ConnectionManager::isRegistered(const IConnectionManagerObserver* observer) const {
    return std::find(observers_.begin(), observers_.end(), observer) != observers_.end();
}

std::shared_ptr<const Settings> ConnectionManager::latest() const {
    const std::lock_guard hold(libraryMutex());
    return settings_;
}

} // namespace trilba::network
