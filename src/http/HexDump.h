#pragma once

#include <string>
#include <string_view>

namespace orvexd {

/// Renders bytes for diagnosis, 16 a line: hexadecimal in 48 columns, then the printable
/// characters. Empty input gives an empty string. Nothing in the daemon calls it; it is for the
/// debugger.
std::string hexDump(std::string_view bytes);

} // namespace orvexd
