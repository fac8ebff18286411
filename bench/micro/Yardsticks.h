#pragma once

#include <string_view>
#include <vector>

namespace orvexd::bench {

/// Copies the pieces into blocks as the daemon's buffers have them: allocated when they are needed,
/// of 64 KiB, all kept until the end. @return the last byte, so that nothing is left out.
char copyIntoBlocks(const std::vector<std::string_view>& pieces);

/// Searches each piece for the delimiter of the bodies. @return how many there were.
std::size_t searchPieces(const std::vector<std::string_view>& pieces);

} // namespace orvexd::bench
