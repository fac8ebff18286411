#pragma once

#include "doctor/Facts.h"
#include "findings/Finding.h"

#include <string>

namespace orvexd::ctl {

/// Whether unit, daemon, library, probe and this program belong together, and whether the daemon
/// still runs files that an update has replaced.
/// @param probe path of orvexd-probe.
void checkVersions(const Facts& facts, const std::string& probe, const findings::Checked& report);

} // namespace orvexd::ctl
