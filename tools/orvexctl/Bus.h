#pragma once

#include "GioHandles.h"

#include <orvexclient.h>

namespace orvexd::ctl {

inline constexpr const char* kBusName = "com.kelvra.orvexd";
inline constexpr const char* kInterface = "com.kelvra.orvexd";
inline constexpr const char* kObjectPath = "/com/kelvra/orvexd";

/// The system bus. The process survives the loss of the connection and hears of it by the signal
/// "closed".
/// @throws Failure when the bus cannot be reached.
ObjectRef<GDBusConnection> connectToSystemBus();

/// A client of the library on a connection of its own. @throws Failure
ObjectRef<OrvexClient> makeClient();

} // namespace orvexd::ctl
