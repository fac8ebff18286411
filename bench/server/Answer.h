#pragma once

#include "Tls.h"

#include <cstddef>
#include <cstdint>

namespace orvexd::bench {

/// What every exchange is answered with; may change between exchanges.
struct AnswerPlan {
    std::size_t bytes = 0;       ///< data of each request's part
    std::uint64_t perSecond = 0; ///< bytes; 0: as fast as it goes
};

/// Sends the multipart answer for `requests` requests. No delimiter and no header block is cut by a
/// record's end. @return bytes of the answer without TLS, 0 when the client has gone.
std::uint64_t sendAnswer(SSL* tls, std::size_t requests, const AnswerPlan& plan);

} // namespace orvexd::bench
