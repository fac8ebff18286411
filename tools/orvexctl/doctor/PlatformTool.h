#pragma once

#include "findings/Finding.h"

#include <string>

namespace orvexd::ctl {

/// Asks trilba-platform, where it is installed, how the platform is.
/// @param platformFile of the daemon's environment; empty for the usual one.
/// @return false when there is no such tool, or it says nothing that can be understood.
[[nodiscard]] bool tellPlatform(const std::string& platformFile, const findings::Checked& report);

} // namespace orvexd::ctl
