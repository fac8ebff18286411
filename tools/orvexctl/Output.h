#pragma once

#include <string_view>

namespace orvexd::ctl {

/// Writes a line to standard output at once, so that a reader behind a pipe sees it.
/// @throws Failure when nobody can read it.
void printLine(std::string_view line);

} // namespace orvexd::ctl
