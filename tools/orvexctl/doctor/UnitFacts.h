#pragma once

#include <cstdint>
#include <gio/gio.h>
#include <optional>
#include <string>

namespace orvexd::ctl {

/// What the service manager says of the unit.
struct UnitFacts {
    std::string loadState;   ///< "loaded", "not-found", …
    std::string activeState; ///< "active", "inactive", "failed", …
    std::string subState;
    std::string result;       ///< of the service's last end
    std::string file;         ///< of the unit
    std::string program;      ///< of ExecStart=
    bool needsReload = false; ///< the file has changed since it was read
    std::uint32_t restarts = 0;
    std::int32_t exitCode = 0;   ///< how the last process ended: CLD_EXITED, CLD_KILLED, …
    std::int32_t exitStatus = 0; ///< its status or signal

    [[nodiscard]] bool isLoaded() const { return loadState == "loaded"; }
};

/// Asks the service manager, and starts nothing. @return nothing where there is none on this bus
[[nodiscard]] std::optional<UnitFacts> gatherUnit(GDBusConnection* bus);

/// Why the service ended last, or could not be started.
[[nodiscard]] std::string endInWords(const UnitFacts& unit);

} // namespace orvexd::ctl
