#pragma once

#include <cstddef>
#include <string_view>

namespace orvexd {

/// The most attributes and namespace declarations that one element may have.
inline constexpr std::size_t kMostAttributes = 12'000;

/// The most bytes of an internal subset, its parameter entities put in. A document in an encoding
/// that cannot be scanned must not be longer itself.
inline constexpr std::size_t kMostDeclarations = 32'000;

/// Looks for what the parser would work at for long without a call in between: very many attributes
/// in one element, and long declarations. Malformed text may pass: the parser ends at its fault.
bool mayBeParsed(std::string_view text);

} // namespace orvexd
