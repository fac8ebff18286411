#pragma once

#include "doctor/Child.h"
#include "findings/Finding.h"

namespace orvexd::ctl {

/// Asks trilba-platform, where it is installed, how the platform is.
/// @param environment the daemon's. @param sandboxed the daemon is the unit's service.
/// @param patience for its end.
/// @return false when there is no such tool, or it says nothing that can be understood.
[[nodiscard]] bool tellPlatform(const Child::Environment& environment, bool sandboxed,
                                std::chrono::seconds patience, const findings::Checked& report);

} // namespace orvexd::ctl
