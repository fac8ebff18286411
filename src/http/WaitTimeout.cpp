#include "http/WaitTimeout.h"

#include <cerrno>
#include <cstdlib>

namespace orvexd {

namespace {

constexpr long kDefaultWait = 5000;
constexpr const char* kFingerprintKey = "orvexd/wait_timeout/fingerprint";
constexpr const char* kFingerprintWait = "90000";
// The per-type key of an empty type ends in a slash; this one does not and is another key.
constexpr const char* kFallbackKey = "orvexd/wait_timeout";

/// strtol with its errno: text without digits gives 0 and sets none.
long toMilliseconds(const std::string& text) {
    errno = 0;
    return std::strtol(text.c_str(), nullptr, 10);
}

} // namespace

std::chrono::milliseconds waitTimeout(const std::string& type, const Parameters& parameters) {
    const std::string key = "orvexd/wait_timeout/" + type;
    std::string value = parameters.get(key);
    if (value.empty() && key == kFingerprintKey) {
        value = kFingerprintWait;
    }
    if (value.empty()) {
        return std::chrono::milliseconds(kDefaultWait);
    }
    long wait = toMilliseconds(value);
    if (errno != 0) {
        const std::string fallback = parameters.get(kFallbackKey);
        if (!fallback.empty()) {
            wait = toMilliseconds(fallback);
            wait = errno != 0 ? kDefaultWait : wait;
        }
    }
    return std::chrono::milliseconds(wait);
}

} // namespace orvexd
