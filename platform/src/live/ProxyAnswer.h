#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace trilba::live {

/// A proxy as the library answers with it.
struct ProxyAnswer {
    std::string host;                  ///< empty: no proxy; an IPv6 address is in brackets
    std::optional<std::uint32_t> port; ///< absent: there is no proxy
    std::string remark;                ///< for people; empty when there is nothing to say
};

/// The first of a resolver's answers that can be used: "direct://" or "http://HOST[:PORT]" with a
/// host of up to 131 bytes. What comes before it and cannot be used is remarked upon.
ProxyAnswer proxyAnswerOf(const std::vector<std::string>& answers);

} // namespace trilba::live
