#pragma once

#include "support/FreeWith.h"

#include <memory>
#include <openssl/bio.h>
#include <openssl/ssl.h>

namespace orvexd::bench {

using TlsContext = std::unique_ptr<SSL_CTX, FreeWith<SSL_CTX_free>>;
using Tls = std::unique_ptr<SSL, FreeWith<SSL_free>>;

/// Largest plaintext of one TLS record; a client reads it in one piece.
inline constexpr std::size_t kRecord = std::size_t{16} * 1024;

} // namespace orvexd::bench
