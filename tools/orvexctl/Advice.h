#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace orvexd::ctl {

/// What a person can do about an exchange that failed. The daemon's text says more than its number:
/// it is libcurl's text for a transfer that failed (curl_easy_strerror(3)), one of the daemon's
/// own, or the server's, whose beginning is then the reason in the status line of its response.
/// @param code of errorSignal, or of an error reply.
/// @param text that came with it; may be empty.
/// @return whole sentences that say the likeliest causes, and what to look at. Empty for a code
/// that says enough by itself.
std::string_view adviceFor(std::uint32_t code, std::string_view text);

/// The text for a line of a terminal: up to the first line break, with what is not printable
/// escaped.
std::string firstLine(std::string_view text);

} // namespace orvexd::ctl
