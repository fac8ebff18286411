#pragma once

#include "support/MainLoopPost.h"

#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <trilba/network/ConnectionInfoContainer.h>
#include <trilba/network/IConnectionManager.h>
#include <trilba/network/IConnectionManagerObserver.h>

namespace orvexd {

/// What the network manager tells its owner. Main loop's thread.
class INetworkOwner {
public:
    virtual ~INetworkOwner() = default;

    /// The status after a notification, changed or not.
    /// @param recheck true: the owner may ask for a recheck.
    virtual void onConnectionStatus(std::uint32_t status, bool recheck) = 0;
    /// An active connection exists. Comes with every notification, also when nothing has changed.
    virtual void onNetworkAvailable() = 0;
    /// No active connection exists. Comes with every notification, also when nothing has changed.
    virtual void onConnectionLost() = 0;
    /// The next transfer must open a connection of its own.
    virtual void requestFreshConnect() = 0;
};

/// The daemon's view of the platform's connections: status value, availability, proxy.
///
/// Main loop's thread, except that the platform may notify from any thread, and that the worker
/// asks for the proxy. So the list of connections needs no lock.
class OrvexNetworkManager : public trilba::network::IConnectionManagerObserver {
public:
    /// @param owner must outlive this object.
    explicit OrvexNetworkManager(INetworkOwner& owner);
    ~OrvexNetworkManager() override;
    OrvexNetworkManager(const OrvexNetworkManager&) = delete;
    OrvexNetworkManager& operator=(const OrvexNetworkManager&) = delete;

    /// Platform notification, on any thread. The owner is told on the main loop's thread.
    void onConnectionsChanged() override;
    /// Does nothing: no use is made of the second notification.
    void onSecondaryNotification() override {}

    /// Creates the platform's manager, observes it and reads the first list. Called once, on the
    /// main loop's thread, which is thereby known to this object. Without a manager there is no
    /// connection.
    void start();

    /// True when some connection is active.
    [[nodiscard]] bool hasActiveConnection() const;
    /// True when some connection is flagged, active or not.
    [[nodiscard]] bool hasFlaggedConnection() const;
    /// Status value of the first active connection: 0, 1, 3 or 5.
    [[nodiscard]] std::uint32_t currentStatus() const;

    /// Tells the owner whether a connection is there: onNetworkAvailable or onConnectionLost.
    /// @return true.
    bool recheck();

    /// Receiver of the open duration when no exchange starts; connections are not held open.
    void keepOpen(std::uint32_t /*duration*/) {}
    /// Called when an exchange is about to be examined; there is nothing to give back.
    void release() {}

    /// Asks the platform for the proxy of the built-in server URL. Any thread; takes as long as the
    /// platform does.
    /// @return "host:port", empty when the platform names none.
    [[nodiscard]] std::string proxyFor() const;

private:
    void refreshAndReport();
    void readConnections();

    INetworkOwner& owner_;
    Lifetime lifetime_;
    std::thread::id mainThread_; // set by the constructor and by start, before any notification
    std::unique_ptr<trilba::network::IConnectionManager> connectionManager_; // set once by start
    trilba::network::ConnectionInfoContainer connections_;                   // main loop's thread
};

} // namespace orvexd
