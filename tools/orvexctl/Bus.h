#pragma once

#include "Awaited.h"
#include "GioHandles.h"

#include <orvexclient.h>

namespace orvexd::ctl {

class Wait;

inline constexpr const char* kBusName = "com.kelvra.orvexd";
inline constexpr const char* kInterface = "com.kelvra.orvexd";
inline constexpr const char* kObjectPath = "/com/kelvra/orvexd";

/// The system bus. The process survives the loss of the connection and hears of it by the signal
/// "closed".
/// @throws Failure when the bus cannot be reached.
ObjectRef<GDBusConnection> connectToSystemBus(Wait& wait);

/// A client of the library on a connection of its own. @throws Failure
ObjectRef<OrvexClient> makeClient(Wait& wait);

/// A client that is not connected yet: it is to be initialised.
ObjectRef<OrvexClient> newClient();

/// What a client waits for while it is initialised.
Awaited awaitedBy(OrvexClient* client);

} // namespace orvexd::ctl
