#include "probe/TlsHandles.h"

#include <array>
#include <ctime>
#include <openssl/x509v3.h>

namespace orvexd::probe {

namespace {

using NamesRef = std::unique_ptr<GENERAL_NAMES, FreeWith<GENERAL_NAMES_free>>;

std::string contentOf(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data); // NOLINT: a macro with a cast of C
    return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

std::string bytesOf(const ASN1_STRING* text) {
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
            static_cast<std::size_t>(ASN1_STRING_length(text))};
}

} // namespace

std::string textOf(const X509_NAME* name) {
    const BioRef bio(BIO_new(BIO_s_mem()));
    (void)X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    return contentOf(bio.get());
}

std::string textOf(const ASN1_TIME* time) {
    std::tm parts{};
    std::array<char, 32> text{};
    if (ASN1_TIME_to_tm(time, &parts) != 1 ||
        std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0) {
        return "an unreadable time";
    }
    return text.data();
}

std::string hostsOf(const X509* certificate) {
    std::string hosts;
    const NamesRef names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
        if (name->type == GEN_DNS) {
            hosts += (hosts.empty() ? "" : ", ") + bytesOf(name->d.dNSName);
        }
    }
    return hosts.empty() ? textOf(X509_get_subject_name(certificate)) : hosts;
}

std::string describe(const X509* certificate) {
    return textOf(X509_get_subject_name(certificate)) + ", signed by " +
           textOf(X509_get_issuer_name(certificate)) + ", valid from " +
           textOf(X509_get0_notBefore(certificate)) + " to " +
           textOf(X509_get0_notAfter(certificate));
}

} // namespace orvexd::probe
