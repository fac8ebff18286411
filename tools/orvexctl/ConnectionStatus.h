#pragma once

#include <cstdint>
#include <string>

namespace orvexd::ctl {

/// The daemon's connection status in words, for example "connected, restricted".
std::string connectionStatusWords(std::uint32_t status);

} // namespace orvexd::ctl
