#pragma once

#include "GioHandles.h"
#include "doctor/UnitFacts.h"
#include "findings/Identity.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// The daemon that owns the name on the bus.
struct DaemonFacts {
    std::uint32_t pid = 0;
    std::uint32_t uid = 0;
    std::string program; ///< empty when this user cannot see it
    // A stranger's are none of a daemon's: unset unless the process is root's.
    std::vector<std::string> arguments;             ///< empty when this user cannot see them
    std::optional<findings::Variables> environment; ///< unset when this user cannot see it
};

/// The system bus, the daemon and the unit, asked once and without starting or changing anything.
struct Facts {
    ObjectRef<GDBusConnection> bus; ///< null when it cannot be reached
    std::string busFault;
    bool activatable = false;            ///< the bus can start the daemon
    std::optional<DaemonFacts> daemon;   ///< unset when nobody owns the name
    std::optional<UnitFacts> unit;       ///< unset where there is no service manager
    std::optional<std::uint32_t> status; ///< the daemon's connection status
    std::string callFault;               ///< why a call to the daemon fails; empty when it works
    bool callDenied = false;             ///< because the bus does not let this user call

    /// Whether the daemon is, or will be, the service that the unit describes.
    [[nodiscard]] bool isService() const { return unit && unit->isLoaded(); }
};

/// @param forBus how long the bus has to take this program.
[[nodiscard]] Facts gatherFacts(std::chrono::seconds forBus);

} // namespace orvexd::ctl
