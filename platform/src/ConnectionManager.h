#pragma once

#include "Answers.h"
#include "Description.h"
#include "FileWatcher.h"
#include "IPlatformSource.h"
#include "Settings.h"
#include "trilba/network/IConnectionManager.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace trilba::network {

/// The connections and the proxy of the source that the platform file chooses.
class ConnectionManager final : public IConnectionManager, private ISourceOwner {
public:
    ConnectionManager();
    ConnectionManager(const ConnectionManager&) = delete;
    ConnectionManager& operator=(const ConnectionManager&) = delete;
    ~ConnectionManager() override;

    void getConnections(ConnectionInfoContainer& connections) override;
    [[nodiscard]] std::size_t connectionCount() override;
    [[nodiscard]] bool hasActiveConnection() override;
    void registerObserver(IConnectionManagerObserver* observer) override;
    void unregisterObserver(IConnectionManagerObserver* observer) override;
    bool findConnection(const std::string& name, ConnectionInfo& connection) override;
    int lookUpProxy(const std::string& url, ProxyQuery* query) override;

    [[nodiscard]] Description description() const;
    void onDescriptionChange(std::function<void()> heard) { heard_ = std::move(heard); }

private:
    void onSourceChanged() override;
    void onSourceDetailsChanged() override;

    void onFileChanged();
    void readFile();
    void useSource(SourceName name);
    void takeState();
    void notify();
    [[nodiscard]] bool isRegistered(const IConnectionManagerObserver* observer) const;
    [[nodiscard]] std::shared_ptr<const Settings> latest() const;

    const std::string path_;
    std::shared_ptr<const Settings> settings_;           // guarded by libraryMutex()
    std::vector<IConnectionManagerObserver*> observers_; // guarded by libraryMutex()
    FileWatcher watcher_;                                // main-loop thread only
    SourceName sourceName_ = SourceName::File;           // main-loop thread only
    std::unique_ptr<IPlatformSource> source_;            // main-loop thread only
    bool isAbsent_ = false;                              // main-loop thread only; an AbsentSource
    std::function<void()> heard_;                        // main-loop thread only
    // Main-loop thread only. It is declared last, so it ends first. A notification that finds it
    // gone uses nothing else of the manager.
    std::shared_ptr<const bool> alive_ = std::make_shared<const bool>(true);
};

} // namespace trilba::network
