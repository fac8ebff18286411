#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace orvexd::bench {

inline constexpr std::size_t kMiB = std::size_t{1024} * 1024;

/// A multipart response: its head, and its body as a server sends it.
struct Response {
    std::string head;
    std::string body;
    std::size_t parts = 0; ///< data parts, for one request
};

/// `parts` data parts of `bytes` bytes each. The bytes are drawn from a fixed seed, line ends
/// included.
Response makeResponse(std::size_t parts, std::size_t bytes);

/// Text with a line feed behind every `line` bytes, none for 0.
std::string makeText(std::size_t bytes, std::size_t line);

} // namespace orvexd::bench
