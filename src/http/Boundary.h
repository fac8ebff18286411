#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>
#include <sys/time.h>

namespace orvexd {

/// The longest boundary that RFC 2046, 5.1.1, allows.
inline constexpr std::size_t kBoundaryLength = 70;

/// The boundary character that a drawn code from '0' to 'z' stands for; '\0' asks for another draw.
/// RFC 2046 allows all of them, but not every mail library accepts '=' in a boundary.
[[nodiscard]] constexpr char boundaryCharacter(int code) noexcept {
    switch (code) {
    case ';':
        return '+';
    case '<':
        return '_';
    case '=':
        return '=';
    case '>':
        return '?';
    default:
        break;
    }
    const bool alphanumeric = (code >= '0' && code <= '9') || (code >= 'A' && code <= 'Z') ||
                              (code >= 'a' && code <= 'z');
    return alphanumeric ? static_cast<char>(code) : '\0';
}

/// A multipart boundary of 70 characters over 0-9, A-Z, a-z, '+', '_', '=' and '?', each equally
/// likely. Every call seeds the process-wide rand() from the time of day, so exchanges that start
/// within the same millisecond get the same boundary. That is relied upon. Worker thread.
/// @throws std::bad_alloc.
[[nodiscard]] inline std::string generateBoundary() {
    constexpr int kCodes = 'z' - '0' + 1;
    timeval now{};
    (void)gettimeofday(&now, nullptr); // fails only for a bad address
    std::srand(static_cast<unsigned>(now.tv_usec / 1000 + now.tv_sec));
    std::string boundary;
    boundary.reserve(kBoundaryLength);
    while (boundary.size() < kBoundaryLength) {
        if (const char c = boundaryCharacter(std::rand() % kCodes + '0'); c != '\0') {
            boundary += c;
        }
    }
    return boundary;
}

} // namespace orvexd
