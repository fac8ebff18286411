#include "slp/TextSearch.h"

#include "support/Ascii.h"

#include <algorithm>
#include <cstring>

namespace orvexd {

std::size_t findBytes(std::string_view text, std::string_view needle, std::size_t from) noexcept {
    if (from > text.size() || text.size() - from < needle.size()) {
        return std::string_view::npos;
    }
    const void* found =
        memmem(text.data() + from, text.size() - from, needle.data(), needle.size());
    if (found == nullptr) {
        return std::string_view::npos;
    }
    return static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

std::size_t findIgnoringCase(std::string_view text, std::string_view needle) noexcept {
    const auto* found = std::search(text.begin(), text.end(), needle.begin(), needle.end(),
                                    [](char a, char b) { return asciiLower(a) == asciiLower(b); });
    return found == text.end() ? std::string_view::npos
                               : static_cast<std::size_t>(found - text.begin());
}

} // namespace orvexd
