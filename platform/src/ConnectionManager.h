#pragma once

#include "FileWatcher.h"
#include "Settings.h"
#include "trilba/network/IConnectionManager.h"

#include <memory>
#include <string>
#include <vector>

namespace trilba::network {

/// The connections and the proxy of the platform file.
class ConnectionManager final : public IConnectionManager {
public:
    ConnectionManager();

    void getConnections(ConnectionInfoContainer& connections) override;
    [[nodiscard]] std::size_t connectionCount() override;
    [[nodiscard]] bool hasActiveConnection() override;
    void registerObserver(IConnectionManagerObserver* observer) override;
    void unregisterObserver(IConnectionManagerObserver* observer) override;
    bool findConnection(const std::string& name, ConnectionInfo& connection) override;
    int lookUpProxy(const std::string& url, ProxyQuery* query) override;

private:
    void onFileChanged();
    void readList();
    void notify();
    [[nodiscard]] bool isRegistered(const IConnectionManagerObserver* observer) const;
    [[nodiscard]] std::shared_ptr<const Settings> latest() const;

    const std::string path_;
    std::shared_ptr<const Settings> settings_;           // guarded by libraryMutex()
    std::vector<IConnectionManagerObserver*> observers_; // guarded by libraryMutex()
    FileWatcher watcher_;                                // main-loop thread only
    // Main-loop thread only. It is declared last, so it ends first. A notification that finds it
    // gone uses nothing else of the manager.
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
};

} // namespace trilba::network
