#include "http/Boundary.h"

#include <cstdlib>
#include <sys/time.h>

namespace orvexd {

namespace {

constexpr std::size_t kBoundaryLength = 70; // the longest that RFC 2046, 5.1.1, allows
constexpr int kCodes = 75;                  // '0' to 'z'
constexpr int kFirstCode = '0';
constexpr char kDrawAgain = '\0';

/// The boundary character for a drawn code.
char boundaryCharacter(int code) {
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
    return alphanumeric ? static_cast<char>(code) : kDrawAgain;
}

void seedFromTimeOfDay() {
    timeval now{};
    (void)gettimeofday(&now, nullptr); // fails only for a bad address
    std::srand(static_cast<unsigned>(now.tv_usec / 1000 + now.tv_sec));
}

} // namespace

std::string generateBoundary() {
    seedFromTimeOfDay();
    std::string boundary;
    boundary.reserve(kBoundaryLength);
    while (boundary.size() < kBoundaryLength) {
        const char c = boundaryCharacter(std::rand() % kCodes + kFirstCode);
        if (c != kDrawAgain) {
            boundary += c;
        }
    }
    return boundary;
}

} // namespace orvexd
