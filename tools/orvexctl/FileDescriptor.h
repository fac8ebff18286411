#pragma once

#include <string>

namespace orvexd::ctl {

/// Opens a file; new ones are readable and writable for whom the umask lets.
/// @param flags as for open(2); the descriptor is closed across exec in any case.
/// @throws Failure
int openFile(const std::string& path, int flags);

} // namespace orvexd::ctl
