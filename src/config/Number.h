#pragma once

#include <cerrno>
#include <cstdlib>
#include <string>

namespace orvexd {

/// A number as a text holds it. Its unit is the setting's own.
struct Number {
    long value; ///< the nearest long when the number does not fit
    bool fits;  ///< false: the reader of the setting says what holds instead
};

/// The one reader of numbers in texts, with the rules of strtol(3) to base 10: blanks in front and
/// a sign are accepted, text behind the digits is ignored, and text without digits gives 0. A long
/// has 32 bits on some machines. Any thread; throws nothing.
[[nodiscard]] inline Number readNumber(const std::string& text) {
    errno = 0;
    const long value = std::strtol(text.c_str(), nullptr, 10);
    return {value, errno == 0};
}

} // namespace orvexd
