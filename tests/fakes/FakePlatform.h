#pragma once

#include <functional>
#include <string>
#include <trilba/network/ConnectionInfoContainer.h>
#include <trilba/network/ProxyQuery.h>
#include <vector>

/// Stand-in for the platform library, put in its place when a unit test is linked.
namespace fake_platform {

struct State {
    std::string platformId = "test-platform";
    std::string imei;
    std::string imsi;
    std::string firmwareId;
    std::string preinstalledFilesPath = "/nonexistent";
    std::string storagePath = "/nonexistent-storage";
    bool storagePathCreate = true;
    bool settingsExist = true;
    bool permitted = true; ///< isNetworkPositioningPermitted
    bool enabled = true;   ///< isNetworkPositioningEnabled
    bool managerExists = true;
    std::vector<trilba::network::ConnectionInfo> connections;
    /// Answers a proxy look-up; unset: there is no proxy.
    std::function<int(const std::string& url, trilba::network::ProxyQuery& query)> proxy;
    int identityQueries = 0; ///< calls of getImsi
};

/// A copy of the state; any thread.
State state();

/// Changes the state under its lock.
void change(const std::function<void(State&)>& edit);

/// Back to the defaults.
void reset();

/// The one connection there is, active.
void connect(int kind, bool flagged = false);
void disconnect();

/// Calls every registered observer on the calling thread.
void notifyObservers();
std::size_t observerCount();
/// Managers and settings objects that have not been deleted.
int liveObjects();

} // namespace fake_platform
