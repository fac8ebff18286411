#pragma once

#include "findings/Finding.h"

#include <string>

namespace orvexd::findings {

/// The file of the open platform library: what is wrong with it, key by key. The library keeps to
/// the last good state, or to its defaults, and says nothing.
/// @param sandboxed whether the daemon runs as the service that the unit describes.
/// @param explained somebody else has told already what the file holds and whether it is needed.
void checkPlatformFile(const std::string& path, bool sandboxed, bool explained,
                       const Checked& report);

} // namespace orvexd::findings
