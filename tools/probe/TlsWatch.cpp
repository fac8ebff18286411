#include "probe/TlsWatch.h"

namespace orvexd::probe {

void TlsWatch::observe(CURL* handle) {
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, &TlsWatch::onContext);
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, this);
}

bool TlsWatch::isIdentityRefused() const {
    // Of what OpenSSL calls the alerts about a certificate, these have no such word.
    const bool isAboutIt = alert_.find("certificate") != std::string::npos ||
                           alert_ == "unknown CA" || alert_ == "access denied";
    return certificateWanted_ && isAboutIt;
}

/// Where a TLS context keeps its watch.
int TlsWatch::index() noexcept {
    static const int kIndex = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return kIndex;
}

CURLcode TlsWatch::onContext(CURL* /*handle*/, void* context, void* self) noexcept {
    auto* const tls = static_cast<SSL_CTX*>(context);
    auto& watch = *static_cast<TlsWatch*>(self);
    watch.begun_ = true;
    (void)SSL_CTX_set_ex_data(tls, index(), self);
    SSL_CTX_set_verify(tls, SSL_CTX_get_verify_mode(tls), &TlsWatch::onVerify);
    SSL_CTX_set_msg_callback(tls, &TlsWatch::onMessage);
    SSL_CTX_set_msg_callback_arg(tls, self); // NOLINT: a macro with a cast of C
    try {
        if (watch.onBegin) {
            watch.onBegin();
        }
    } catch (...) {
        return CURLE_ABORTED_BY_CALLBACK; // nobody could be told
    }
    return CURLE_OK;
}

/// Called for each certificate of the chain, the server's own last, and for each fault.
int TlsWatch::onVerify(int good, X509_STORE_CTX* store) noexcept {
    const auto* const connection =
        static_cast<SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
    auto& self = *static_cast<TlsWatch*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(connection), index()));
    if (self.verifyError_ == X509_V_OK) {
        if (good == 0) {
            self.verifyError_ = X509_STORE_CTX_get_error(store);
        }
        if (X509* certificate = X509_STORE_CTX_get_current_cert(store)) {
            (void)X509_up_ref(certificate);
            self.certificate_.reset(certificate);
        }
    }
    return good;
}

void TlsWatch::onMessage(int sent, int /*version*/, int type, const void* data, std::size_t size,
                         SSL* connection, void* self) noexcept {
    auto& watch = *static_cast<TlsWatch*>(self);
    watch.connection_ = connection;
    const auto* const bytes = static_cast<const unsigned char*>(data);
    constexpr std::size_t kAlertSize = 2; // level, description
    if (sent != 0 || size == 0) {
        return;
    }
    if (type == SSL3_RT_ALERT && size >= kAlertSize && bytes[1] != SSL3_AD_CLOSE_NOTIFY) {
        watch.alert_ = SSL_alert_desc_string_long(bytes[1]);
    } else if (type == SSL3_RT_HANDSHAKE) {
        watch.certificateWanted_ |= bytes[0] == SSL3_MT_CERTIFICATE_REQUEST;
        watch.taken_ |= bytes[0] == SSL3_MT_NEWSESSION_TICKET;
    }
}

} // namespace orvexd::probe
