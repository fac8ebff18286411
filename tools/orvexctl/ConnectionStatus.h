#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace orvexd::ctl {

/// The daemon's connection status in words, for example "connected, restricted".
std::string connectionStatusWords(std::uint32_t status);

/// What "orvexctl status" prints. Without a status there is no daemon. The JSON object has the
/// members "time" and "running", and with a status also "status", "words", "connected", "kindOne"
/// and "restricted".
std::string connectionStatusLine(std::optional<std::uint32_t> status, bool json);

} // namespace orvexd::ctl
