#include "ConnectionManager.h"

#include "AbsentSource.h"
#include "FileSource.h"
#include "LibraryMutex.h"
#include "PlatformFile.h"
#include "SourceModule.h"

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
    readFile();
}

ConnectionManager::~ConnectionManager() {
    if (sourceName_ == SourceName::NetworkManager) {
        LiveState::set(nullptr);
    }
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
    const auto settings = answersNow(path_);
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

Description ConnectionManager::description() const {
    Settings answers = *answersNow(path_);
    answers.connections = latest()->connections;
    return {path_,
            sourceName_,
            source_->hasAnswered(),
            source_->remarks(),
            *PlatformFile::read(path_).settings,
            std::move(answers)};
}

void ConnectionManager::onFileChanged() {
    readFile();
    notify();
}

void ConnectionManager::onSourceChanged() {
    takeState();
    notify();
}

void ConnectionManager::onSourceDetailsChanged() {
    takeState();
}

void ConnectionManager::readFile() {
    const auto [file, lookAgain] = PlatformFile::read(path_);
    if (lookAgain) {
        watcher_.lookAgainIn(PlatformFile::kEmptyCountsAsHalfWritten);
    }
    useSource(chosenSource(*file));
    source_->follow(file);
    takeState();
}

/// Keeps the source when it is the one that is wanted. A live source that cannot be had knows
/// nothing, like one that has had no answer yet; each reading of the file tries to have it.
void ConnectionManager::useSource(SourceName name) {
    if (source_ && name == sourceName_ && !isAbsent_) {
        return;
    }
    source_.reset();
    LiveState::set(nullptr);
    sourceName_ = name;
    if (name == SourceName::NetworkManager) {
        std::string fault;
        source_ = SourceModule::makeSource(*this, fault);
        isAbsent_ = source_ == nullptr;
        source_ = source_ ? std::move(source_) : std::make_unique<AbsentSource>(fault);
    } else {
        isAbsent_ = false;
        source_ = std::make_unique<FileSource>();
    }
}

void ConnectionManager::takeState() {
    auto state = source_->state();
    if (sourceName_ == SourceName::NetworkManager) {
        LiveState::set(state);
    }
    {
        const std::lock_guard hold(libraryMutex());
        settings_ = std::move(state);
    }
    if (heard_) {
        heard_();
    }
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

namespace trilba {

Description describe(network::IConnectionManager& manager) {
    // Every manager that `create` makes is one.
    return dynamic_cast<network::ConnectionManager&>(manager).description();
}

void onDescriptionChange(network::IConnectionManager& manager, std::function<void()> heard) {
    dynamic_cast<network::ConnectionManager&>(manager).onDescriptionChange(std::move(heard));
}

} // namespace trilba
