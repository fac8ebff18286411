#pragma once

#include <string>
#include <string_view>

namespace orvexd {

/// Value of the header `name` in a part's header block; empty when it is absent. The name is
/// searched as a plain substring of the whole block, whatever its case. Blanks and colons in front
/// of the value are skipped; the value ends at a carriage return or at the end of the block, and
/// nothing is trimmed from it.
std::string headerValue(std::string_view block, std::string_view name);

} // namespace orvexd
