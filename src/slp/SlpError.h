#pragma once

#include <string>

namespace orvexd {

/// Codes with which a response fails. They reach clients by way of the exchange's outcome.
enum SlpErrorCode : int {
    kSlpBadRequest = 41,       ///< HTTP status 400
    kSlpClientError = 43,      ///< another HTTP status from 402 to 499
    kSlpNotAccepted = 51,      ///< the answer is not HTTP, or its SLP status is not "ok"
    kSlpServerError = 55,      ///< HTTP status 500 or above
    kSlpAccessDenied = 56,     ///< HTTP status 401 or 403
    kSlpUnexpectedStatus = 57, ///< an HTTP status that is no failure
    kSlpFormatError = 1003,    ///< the MIME structure or the SLP document is malformed
};

/// Why a response is not what it should be. The text may hold bytes of the server.
struct SlpError {
    int code = 0;
    std::string text;
};

} // namespace orvexd
