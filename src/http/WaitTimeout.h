#pragma once

#include "config/Parameters.h"

#include <chrono>
#include <string>

namespace orvexd {

/// How long the upload waits for client data of a request of `type`: by default 90 s for
/// "fingerprint" and 5 s for everything else. May be zero or negative: no wait at all.
std::chrono::milliseconds waitTimeout(const std::string& type, const Parameters& parameters);

} // namespace orvexd
