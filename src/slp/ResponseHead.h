#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace orvexd {

/// Why a response is not what it should be. The text may hold bytes of the server.
struct SlpError {
    int code = 0; ///< one of the failure codes
    std::string text;
};

/// What the status line and the header lines of a response say.
struct ResponseHead {
    /// How the body is cut; either value may be empty.
    struct Multipart {
        std::string startId;  ///< Content-Id of the part that holds the SLP document
        std::string boundary; ///< ends before its first NUL
    };

    /// Unset when the head has no Content-Type, or was not read that far.
    std::optional<Multipart> multipart;
    std::optional<SlpError> error; ///< the last thing found wrong
};

/// Reads a head: the bytes of a response before its first empty line. A status of 400 or more is an
/// error. The head is read on all the same, and a fault of its format replaces that error.
/// @throws std::bad_alloc, as all functions here.
[[nodiscard]] ResponseHead parseResponseHead(std::string_view head);

/// Error code for an HTTP status of 400 or more: 41 for 400, 56 for 401 and 403, 55 from 500 on, 43
/// for all others.
[[nodiscard]] int statusToErrorCode(long status) noexcept;

/// Value of the parameter `name` (in lower case) of a Content-Type line; empty when it is absent.
/// The name is searched as a plain substring. Quotes and '=' vanish from the value, wherever they
/// stand.
[[nodiscard]] std::string contentTypeParameter(std::string_view line, std::string_view name);

/// Value of the header `name` in a part's header block; empty when it is absent. The name is
/// searched as a plain substring of the whole block, whatever its case. Blanks and colons in front
/// of the value are skipped; the value ends at a carriage return or at the end of the block, and
/// nothing is trimmed from it.
[[nodiscard]] std::string headerValue(std::string_view block, std::string_view name);

} // namespace orvexd
