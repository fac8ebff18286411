#include "fakes/FakePlatform.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <trilba/Debug.h>
#include <trilba/core/Directory.h>
#include <trilba/core/ISystemLocationSettings.h>
#include <trilba/core/SystemInfo.h>
#include <trilba/network/IConnectionManager.h>

using namespace trilba;

namespace {

std::mutex& mutex() {
    static std::mutex instance;
    return instance;
}

fake_platform::State& current() {
    static fake_platform::State instance;
    return instance;
}

std::vector<network::IConnectionManagerObserver*>& observers() {
    static std::vector<network::IConnectionManagerObserver*> instance;
    return instance;
}

std::atomic<int> objects = 0;

class CountedObject {
public:
    CountedObject() { ++objects; }
    ~CountedObject() { --objects; }
    CountedObject(const CountedObject&) = delete;
    CountedObject& operator=(const CountedObject&) = delete;
    CountedObject(CountedObject&&) = delete;
    CountedObject& operator=(CountedObject&&) = delete;
};

class Settings : public core::ISystemLocationSettings, private CountedObject {
public:
    bool isNetworkPositioningPermitted() override { return fake_platform::state().permitted; }
    bool isNetworkPositioningStated() override { return true; }
    bool isNetworkPositioningEnabled() override { return fake_platform::state().enabled; }
};

class Manager : public network::IConnectionManager, private CountedObject {
public:
    Manager() = default;
    ~Manager() override {
        const std::lock_guard guard(mutex());
        observers().clear();
    }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;
    Manager(Manager&&) = delete;
    Manager& operator=(Manager&&) = delete;

    void getConnections(network::ConnectionInfoContainer& connections) override {
        for (const auto& connection : fake_platform::state().connections) {
            connections.add(connection);
        }
    }
    std::size_t connectionCount() override { return fake_platform::state().connections.size(); }
    bool hasActiveConnection() override {
        const auto all = fake_platform::state().connections;
        return std::any_of(all.begin(), all.end(), [](const auto& entry) { return entry.active; });
    }
    void registerObserver(network::IConnectionManagerObserver* observer) override {
        const std::lock_guard guard(mutex());
        observers().push_back(observer);
    }
    void unregisterObserver(network::IConnectionManagerObserver* observer) override {
        const std::lock_guard guard(mutex());
        std::erase(observers(), observer);
    }
    bool findConnection(const std::string& /*name*/,
                        network::ConnectionInfo& /*connection*/) override {
        return false;
    }
    int lookUpProxy(const std::string& url, network::ProxyQuery* query) override {
        const auto answer = fake_platform::state().proxy;
        return answer ? answer(url, *query) : network::kProxyNone;
    }
};

} // namespace

namespace fake_platform {

State state() {
    const std::lock_guard guard(mutex());
    return current();
}

void change(const std::function<void(State&)>& edit) {
    const std::lock_guard guard(mutex());
    edit(current());
}

void reset() {
    change([](State& state) { state = State{}; });
}

void connect(int kind, bool flagged) {
    change([&](State& state) {
        state.connections = {{.name = "link0", .kind = kind, .active = true, .flagged = flagged}};
    });
}

void disconnect() {
    change([](State& state) { state.connections.clear(); });
}

void notifyObservers() {
    std::vector<network::IConnectionManagerObserver*> all;
    {
        const std::lock_guard guard(mutex());
        all = observers();
    }
    for (auto* observer : all) {
        observer->onConnectionsChanged();
    }
}

std::size_t observerCount() {
    const std::lock_guard guard(mutex());
    return observers().size();
}

int liveObjects() {
    return objects;
}

} // namespace fake_platform

namespace trilba {

void Debug::init() noexcept {}
void Debug::release() noexcept {}

namespace core {

void Directory::setPreinstalledFilesPath(const std::string& path) {
    fake_platform::change([&](auto& state) { state.preinstalledFilesPath = path; });
}
void Directory::getPreinstalledFilesPath(std::string& path) {
    path = fake_platform::state().preinstalledFilesPath;
}
std::string Directory::getPreinstalledFilesPath() {
    return fake_platform::state().preinstalledFilesPath;
}
bool Directory::setDefaultStoragePath(const std::string& path, bool create) {
    fake_platform::change([&](auto& state) {
        state.storagePath = path;
        state.storagePathCreate = create;
    });
    return true;
}
void Directory::getDefaultStoragePath(std::string& path, bool& isSet) {
    path = fake_platform::state().storagePath;
    isSet = true;
}

void SystemInfo::getPlatformId(std::string& id) {
    id = fake_platform::state().platformId;
}
void SystemInfo::getImei(std::string& imei) {
    imei = fake_platform::state().imei;
}
void SystemInfo::getImsi(std::string& imsi) {
    fake_platform::change([](auto& state) { ++state.identityQueries; });
    imsi = fake_platform::state().imsi;
}
void SystemInfo::getMMF(std::string& firmwareId) {
    firmwareId = fake_platform::state().firmwareId;
}

ISystemLocationSettings* ISystemLocationSettings::create() {
    return fake_platform::state().settingsExist ? std::make_unique<Settings>().release() : nullptr;
}

} // namespace core

namespace network {

IConnectionManager* IConnectionManager::create(INetworkAdaptation* /*adaptation*/) {
    return fake_platform::state().managerExists ? std::make_unique<Manager>().release() : nullptr;
}

} // namespace network

} // namespace trilba
