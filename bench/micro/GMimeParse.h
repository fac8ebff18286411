#pragma once

#include "Bodies.h"

namespace orvexd::bench {

/// Parses a response with GMime from memory; part contents become streams over that memory.
/// @return false when it does not find the parts.
bool parseGMime(const Response& response, const std::string& message);

/// What GMime is given: its own kind of head before the body.
std::string makeGMimeMessage(const Response& response);

} // namespace orvexd::bench
