#pragma once

#include "probe/CheckRoad.h"

namespace orvexd::probe {

/// Sends one real request, an empty fingerprint, and tells what the server says to it.
/// @param report of the exchange. @param dates takes what the server's clock says.
void checkExchange(const Destination& destination, const findings::Checked& report,
                   const findings::Checked& dates);

} // namespace orvexd::probe
