#pragma once

#include "trilba/Export.h"

namespace trilba::network {

/// Hears about changes of the connection list. The order of the virtual operations is the binary
/// interface; slots count from 1 and the two destructor entries are slots 1 and 2.
class TRILBA_API IConnectionManagerObserver {
public:
    virtual ~IConnectionManagerObserver() = default;

    /// Slot 3: the platform file or the network changed and the list was read again; it may be the
    /// same as before.
    /// Main-loop thread, no lock of the library held: every operation of the manager may be called,
    /// deleting it included. Must not throw.
    virtual void onConnectionsChanged() = 0;

    /// Slot 4: the platform's second notification. The open library has no occasion for it and
    /// never calls it.
    virtual void onSecondaryNotification() = 0;
};

} // namespace trilba::network
