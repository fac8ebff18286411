#pragma once

#include "Answer.h"
#include "Tls.h"

#include <string>

namespace orvexd::bench {

/// Serves one connection from its CONNECT to its end: tunnel, handshake, one exchange. Closes
/// `socket`.
/// @return the counts of the exchange as a JSON object; empty when there was none.
std::string serveConnection(int socket, SSL_CTX* context, const AnswerPlan& plan);

} // namespace orvexd::bench
