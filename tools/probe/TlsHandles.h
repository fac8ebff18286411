#pragma once

#include "support/FreeWith.h"

#include <memory>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <string>
#include <vector>

namespace orvexd::probe {

using BioRef = std::unique_ptr<BIO, FreeWith<BIO_free_all>>;
using CertificateRef = std::unique_ptr<X509, FreeWith<X509_free>>;
using KeyRef = std::unique_ptr<EVP_PKEY, FreeWith<EVP_PKEY_free>>;
using StoreRef = std::unique_ptr<X509_STORE, FreeWith<X509_STORE_free>>;
using StoreContextRef = std::unique_ptr<X509_STORE_CTX, FreeWith<X509_STORE_CTX_free>>;
using Certificates = std::vector<CertificateRef>;

/// A name as "O = Example, CN = terminal".
[[nodiscard]] std::string textOf(const X509_NAME* name);

/// A time of a certificate as "2026-11-22 09:00:00 UTC".
[[nodiscard]] std::string textOf(const ASN1_TIME* time);

/// The host names for which a certificate is good, separated by commas.
[[nodiscard]] std::string hostsOf(const X509* certificate);

/// Subject, issuer and dates in a few words.
[[nodiscard]] std::string describe(const X509* certificate);

} // namespace orvexd::probe
