#pragma once

#include "probe/Road.h"

#include <cstdint>
#include <optional>
#include <string>

namespace orvexd::probe {

/// What the probe is asked to do.
struct Options {
    enum class Task { Check, Local, Network };

    Task task = Task::Check;
    std::string preinstDirectory; ///< empty: the platform's
    std::string identityFile;
    std::optional<std::uint32_t> daemon;         ///< process id of the running daemon
    std::optional<std::uint32_t> reportedStatus; ///< what it says of the connection
    bool sandboxed = false; ///< the daemon runs as the service that the unit describes
    bool exchange = false;  ///< sends a request
    Patience patience;
};

/// Reads the command line. Prints help or complaint and ends the process when there is nothing to
/// do.
Options readOptions(int argc, char** argv);

} // namespace orvexd::probe
