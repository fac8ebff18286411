#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace orvexd::fuzz {

/// Ends the run when a property does not hold, so that the fuzzer keeps the input that showed it.
inline void check(bool holds, const char* property) {
    if (!holds) {
        std::fprintf(stderr, "property violated: %s\n", property);
        std::abort();
    }
}

/// As above; `describe` is called only when the property does not hold.
template <typename Describe> void check(bool holds, const char* property, Describe describe) {
    if (!holds) {
        const std::string details = describe();
        std::fprintf(stderr, "%.*s\n", static_cast<int>(details.size()), details.data());
        check(false, property);
    }
}

} // namespace orvexd::fuzz
