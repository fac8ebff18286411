#pragma once

#include <string>
#include <string_view>

namespace orvexd {

/// ASCII lower case; bytes above 127 stay, whatever the locale.
constexpr char asciiLower(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string asciiLower(std::string_view text) {
    std::string lower(text);
    for (char& c : lower) {
        c = asciiLower(c);
    }
    return lower;
}

} // namespace orvexd
