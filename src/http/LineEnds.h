#pragma once

#include <span>
#include <string>
#include <string_view>

namespace orvexd {

/// Turns each bare line feed of `chunk` into CR LF, as parts of text have it on the wire. A line
/// feed at position 0 is never changed, also when the chunk before did not end in a carriage
/// return. That is relied upon. The cost is linear in the bytes. Any thread.
///
/// @param out receives the text; what does not fit is appended to `overflow`.
/// @return number of bytes written to `out`.
std::size_t normalizeLineEnds(std::string_view chunk, std::span<char> out, std::string& overflow);

/// As above, as a new string.
std::string normalizeLineEnds(std::string_view chunk);

} // namespace orvexd
