#pragma once

#include <cstdint>

namespace orvexd {

/// What the network manager tells its owner; always on the main loop's thread and without a lock
/// of the manager held.
class INetworkOwner {
public:
    INetworkOwner() = default;
    virtual ~INetworkOwner() = default;
    INetworkOwner(const INetworkOwner&) = delete;
    INetworkOwner& operator=(const INetworkOwner&) = delete;
    INetworkOwner(INetworkOwner&&) = delete;
    INetworkOwner& operator=(INetworkOwner&&) = delete;

    /// The status after a notification. @param recheck the owner may ask for a recheck.
    virtual void onConnectionStatus(std::uint32_t status, bool recheck) = 0;
    /// An active connection exists.
    virtual void onNetworkAvailable() = 0;
    /// No active connection exists.
    virtual void onConnectionLost() = 0;
    /// The next transfer must open a connection of its own.
    virtual void requestFreshConnect() = 0;
};

} // namespace orvexd
