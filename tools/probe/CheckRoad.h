#pragma once

#include "findings/Finding.h"
#include "probe/Road.h"

#include <string>

namespace orvexd::probe {

/// Where the road goes, and with what.
struct Destination {
    std::string files; ///< directory of the three PEM files
    std::string proxy; ///< "host:port", empty for none
    Patience patience;
};

/// Goes to the server as the daemon does, up to a TLS connection that the server has accepted, and
/// sends no request: names, the connection with the proxy's leave, TLS.
/// @return whether a request may follow.
bool checkRoad(const Destination& destination, const findings::Report& report);

/// Why TLS did not come about, for a road that has failed with this result.
void tellTlsFailure(const Road& road, CURLcode result, const findings::Checked& report);

/// The host of the built-in server URL.
[[nodiscard]] std::string serverHost();

} // namespace orvexd::probe
