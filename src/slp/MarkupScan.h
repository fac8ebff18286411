#pragma once

#include <string_view>

namespace orvexd {

/// Whether libxml2 takes less than half a second to parse a document or to find that it is none.
/// Some texts that are none, and a few that would be one, are not cheap because their cost is hard
/// to tell.
/// @param markup the document as characters that XML allows; each byte up to 127 is an ASCII one.
[[nodiscard]] bool isCheap(std::string_view markup);

} // namespace orvexd
