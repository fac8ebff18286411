#pragma once

#include <cstddef>
#include <cstdint>

namespace trilba::network {

/// Record of a proxy lookup, 140 bytes on every machine. The caller sets `size` and presets `port`;
/// the platform fills `host` and, when it knows one, `port`.
struct ProxyQuery {
    static constexpr std::size_t kHostCapacity = 132; ///< bytes, the ending NUL included

    std::uint32_t size = 140;      ///< bytes of this record
    char host[kHostCapacity] = {}; // NOLINT(modernize-avoid-c-arrays): fixed binary layout
    std::uint32_t port = 8080;     ///< left as it is when the platform names no port
};

static_assert(sizeof(ProxyQuery) == 140);
static_assert(offsetof(ProxyQuery, size) == 0);
static_assert(offsetof(ProxyQuery, host) == 4);
static_assert(offsetof(ProxyQuery, port) == 136);

/// Results of a proxy lookup; only `kProxyFound` fills the query.
constexpr int kProxyFound = 0;
constexpr int kProxyNone = 1;        ///< there is no proxy
constexpr int kProxyBadQuery = 2;    ///< null query, or its `size` is not 140
constexpr int kProxyHostTooLong = 3; ///< the host name needs more than 131 bytes

} // namespace trilba::network
