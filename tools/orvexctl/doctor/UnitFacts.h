#pragma once

#include "findings/Identity.h"

#include <cstdint>
#include <gio/gio.h>
#include <optional>
#include <string>
#include <vector>

namespace orvexd::ctl {

/// What the service manager says of the unit.
struct UnitFacts {
    std::string loadState;   ///< "loaded", "not-found", …
    std::string activeState; ///< "active", "inactive", "failed", …
    std::string subState;
    std::string result;                 ///< of the service's last end
    std::string file;                   ///< of the unit
    std::vector<std::string> arguments; ///< of ExecStart=, the program first
    findings::Variables environment;    ///< of Environment=
    std::vector<std::string> environmentFiles;
    std::vector<std::string> networkLimits; ///< settings that keep the service from the network
    bool needsReload = false;               ///< the file has changed since it was read
    std::uint32_t restarts = 0;
    std::int32_t exitCode = 0;   ///< how the last process ended: CLD_EXITED, CLD_KILLED, …
    std::int32_t exitStatus = 0; ///< its status or signal

    [[nodiscard]] bool isLoaded() const { return loadState == "loaded"; }
    /// Path of the service's program; empty when it is not known.
    [[nodiscard]] std::string program() const {
        return arguments.empty() ? std::string() : arguments.front();
    }
};

/// Adds what "NAME=value" says.
void addPair(const std::string& entry, findings::Variables& variables);

/// Asks the service manager, and starts nothing.
/// @param patience milliseconds for each of three calls.
/// @return nothing where there is none on this bus.
[[nodiscard]] std::optional<UnitFacts> gatherUnit(GDBusConnection* bus, int patience = 5000);

/// Why the service ended last, or could not be started.
[[nodiscard]] std::string endInWords(const UnitFacts& unit);

} // namespace orvexd::ctl
