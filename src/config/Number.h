#pragma once

#include <cerrno>
#include <cstdlib>
#include <string>

namespace orvexd {

/// A number as a text holds it.
struct Number {
    long value; ///< the nearest long when the number does not fit
    bool fits;  ///< false: the reader of the setting says what holds instead
};

/// The one reader of numbers in texts: strtol(3) to base 10. Text behind the digits is ignored, and
/// text without digits gives 0. Any thread.
[[nodiscard]] inline Number readNumber(const std::string& text) {
    errno = 0;
    const long value = std::strtol(text.c_str(), nullptr, 10);
    return {value, errno == 0};
}

} // namespace orvexd
