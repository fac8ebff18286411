#pragma once

#include "network/INetworkOwner.h"
#include "support/Locks.h"
#include "support/MainLoopRecord.h"

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <trilba/network/ConnectionInfoContainer.h>
#include <trilba/network/IConnectionManager.h>
#include <trilba/network/IConnectionManagerObserver.h>

namespace orvexd {

/// The daemon's view of the platform's connections: status value, availability, proxy.
///
/// The lock is a leaf: the owner is always called after it has been released, because the owner
/// asks this object while it holds locks of its own.
class OrvexNetworkManager : public trilba::network::IConnectionManagerObserver {
public:
    explicit OrvexNetworkManager(INetworkOwner& owner);
    ~OrvexNetworkManager() override;
    OrvexNetworkManager(const OrvexNetworkManager&) = delete;
    OrvexNetworkManager& operator=(const OrvexNetworkManager&) = delete;
    OrvexNetworkManager(OrvexNetworkManager&&) = delete;
    OrvexNetworkManager& operator=(OrvexNetworkManager&&) = delete;

    /// Platform notification. The owner is told on the main loop's thread, whichever thread the
    /// platform calls from.
    void onConnectionsChanged() override;
    /// Does nothing: no use is made of the second notification.
    void onSecondaryNotification() override {}

    /// Creates the platform's manager, observes it and reads the first list. Called once, on the
    /// main loop's thread, which is thereby known to this object.
    void start();

    bool hasActiveConnection() const;
    /// True when some connection is flagged, active or not.
    bool hasFlaggedConnection() const;
    /// Status value of the first active connection: 0, 1, 3 or 5. Any thread.
    std::uint32_t currentStatus() const;

    /// Tells the owner whether a connection is there: onNetworkAvailable or onConnectionLost.
    /// @return true. Main loop's thread.
    bool recheck();

    /// Receiver of the open duration when no exchange starts; connections are not held open.
    void keepOpen(std::uint32_t /*duration*/) {}
    /// Called when an exchange is about to be examined; there is nothing to give back.
    void release() {}

    /// Asks the platform for the proxy of the built-in server URL. Any thread.
    /// @return "host:port", empty when the platform names none.
    std::string proxyFor() const;

private:
    struct Notification;

    void refreshAndReport();

    INetworkOwner& owner_;
    Lifetime lifetime_;
    std::thread::id mainThread_;
    mutable RecursiveMutex lock_;
    std::unique_ptr<trilba::network::IConnectionManager> connectionManager_; // set once by start
    trilba::network::ConnectionInfoContainer connections_;                   // guarded by lock_
};

} // namespace orvexd
