#pragma once

#include "trilba/Export.h"
#include "trilba/network/ConnectionInfoContainer.h"
#include "trilba/network/IConnectionManagerObserver.h"
#include "trilba/network/ProxyQuery.h"

#include <cstddef>
#include <string>

namespace trilba::network {

/// A vendor's adaptation of the network stack. The open library needs none and asks it nothing.
class INetworkAdaptation;

/// The device's connections and its proxy. The list is the one read when the manager was created or
/// at the latest notification, so it changes together with the notifications; the proxy is looked
/// up in the platform file as it is at the moment of the question. The file may leave the list, and
/// what else it does not say, to a live source, which has no connections until it was answered.
///
/// Create and delete a manager on the thread that runs the default main loop; its other operations
/// may be called on any thread. Deleting it ends the notifications, those on their way included.
///
/// The order of the virtual operations is the binary interface; slots count from 1 and the two
/// destructor entries are slots 1 and 2.
class TRILBA_API IConnectionManager {
public:
    virtual ~IConnectionManager() = default;

    /// Slot 3: replaces the content of `connections` with a copy of the list.
    virtual void getConnections(ConnectionInfoContainer& connections) = 0;

    /// Slot 4: number of connections in the list, active or not.
    [[nodiscard]] virtual std::size_t connectionCount() = 0;

    /// Slot 5: is some connection of the list active?
    [[nodiscard]] virtual bool hasActiveConnection() = 0;

    /// Slot 6: from now on `observer` hears of every change. It is not owned and must stay alive
    /// until it is unregistered or the manager is gone. Null, or one that is registered already,
    /// changes nothing.
    virtual void registerObserver(IConnectionManagerObserver* observer) = 0;

    /// Slot 7: ends what `registerObserver` began; an unknown observer changes nothing. On the
    /// main-loop thread, also inside a notification, the observer is not called any more once this
    /// returns; on another thread a call that has begun may still be running.
    virtual void unregisterObserver(IConnectionManagerObserver* observer) = 0;

    /// Slot 8: fills `connection` with the first connection of that name.
    /// @return false, and `connection` is untouched, when the list has none.
    virtual bool findConnection(const std::string& name, ConnectionInfo& connection) = 0;

    /// Slot 9: looks up the proxy for `url`; the open library has one proxy for every URL. Reads
    /// the platform file; never asks a resolver, but answers with what a live source was told last.
    /// On success `host` ends with NUL and `port` is overwritten only when the file names a port;
    /// otherwise the query is untouched.
    /// @return 0 (`kProxyFound`) or one of the other results in ProxyQuery.h.
    virtual int lookUpProxy(const std::string& url, ProxyQuery* query) = 0;

    /// Reads the connection list and begins to watch the platform file with sources on the default
    /// main context. The library starts no thread before; a live source may start some now. A
    /// process that has forked creates a manager anew.
    /// @param adaptation  may be null.
    /// @return a new manager that the caller owns and deletes; never null. The pointer is plain
    ///         because it is part of the binary interface: put it into a `std::unique_ptr` at once.
    [[nodiscard]] static IConnectionManager* create(INetworkAdaptation* adaptation);
};

} // namespace trilba::network
