#pragma once

#include "findings/Finding.h"

#include <string>

namespace orvexd::probe {

/// The configuration file: a malformed one ends the daemon.
/// @param files its directory.
void checkSchema(const std::string& files, const findings::Checked& report);

} // namespace orvexd::probe
