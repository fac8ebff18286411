#pragma once

namespace orvexd {

/// Prints the one line that the daemon ever prints: platform version, platform id, build time.
void printVersionBanner();

} // namespace orvexd
