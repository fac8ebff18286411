#pragma once

#include "findings/Finding.h"
#include "probe/TlsHandles.h"

#include <string>

namespace orvexd::probe {

/// The three PEM files of the daemon, as far as they could be read.
struct Identity {
    Certificates client;      ///< the device's own first, then those between it and the authority
    KeyRef key;               ///< of the device
    Certificates authorities; ///< those that may have signed the server's certificate
};

/// The three files: there, root's, readable; each holds what it should; they fit each other.
/// @param files their directory.
/// @param sandboxed whether the daemon runs as the service that the unit describes.
Identity checkFiles(const std::string& files, bool sandboxed, const findings::Checked& report);

/// The dates of the device's certificate and of the authorities against the clock, and the clock.
void checkDates(const Identity& identity, const std::string& files,
                const findings::Checked& report);

} // namespace orvexd::probe
