#pragma once

#include <string>

namespace orvexd {

/// A multipart boundary of 70 characters over 0-9, A-Z, a-z, '+', '_', '=' and '?'. Seeds the
/// process-wide rand() from the time of day on every call; exchanges that start within the same
/// millisecond of the same second get the same one. Worker thread.
std::string generateBoundary();

} // namespace orvexd
