#pragma once

#include <string>

namespace orvexd {

/// Why a response is not what it should be. The text may hold bytes of the server.
struct SlpError {
    int code = 0; ///< one of the failure codes
    std::string text;
};

} // namespace orvexd
