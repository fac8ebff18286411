#pragma once

#include <cstdint>
#include <string>

namespace orvexd {

/// Names a request across the daemon and in error signals: "3:17" is request 17 of connection 3.
inline std::string requestKey(std::uint32_t connectionId, std::uint32_t requestId) {
    std::string key = std::to_string(connectionId);
    key += ':';
    key += std::to_string(requestId);
    return key;
}

/// Appends `key` to a list of keys, separated by one blank.
inline void appendKey(std::string& list, const std::string& key) {
    if (!list.empty()) {
        list += ' ';
    }
    list += key;
}

} // namespace orvexd
