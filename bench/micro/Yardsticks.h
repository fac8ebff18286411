#pragma once

#include <string_view>
#include <vector>

namespace orvexd::bench {

/// Copies the pieces into one block of 64 KiB over and over, as they pass through the buffer of a
/// request whose client keeps pace. @return the last byte, so that nothing is left out.
char copyThroughBlock(const std::vector<std::string_view>& pieces);

/// Searches each piece for the delimiter of the bodies. @return how many there were.
std::size_t searchPieces(const std::vector<std::string_view>& pieces);

} // namespace orvexd::bench
