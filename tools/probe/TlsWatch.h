#pragma once

#include "probe/TlsHandles.h"

#include <curl/curl.h>
#include <functional>
#include <openssl/ssl.h>
#include <string>

namespace orvexd::probe {

/// What passes in a TLS handshake of libcurl's. It looks on and decides nothing.
class TlsWatch {
public:
    TlsWatch() = default;
    ~TlsWatch() = default;
    TlsWatch(const TlsWatch&) = delete;
    TlsWatch& operator=(const TlsWatch&) = delete;

    /// Called when libcurl has read the three files and begins with TLS.
    std::function<void()> onBegin;

    /// Looks at the next handshakes of this handle. Must outlive it.
    void observe(CURL* handle);

    /// libcurl has read the three files and begins.
    [[nodiscard]] bool hasBegun() const noexcept { return begun_; }
    /// The server has asked for a client certificate.
    [[nodiscard]] bool isCertificateWanted() const noexcept { return certificateWanted_; }
    /// The server has given a session to resume, which it does for clients that it takes.
    [[nodiscard]] bool isTaken() const noexcept { return taken_; }
    /// What the server's last alert says, in OpenSSL's words; empty for none.
    [[nodiscard]] const std::string& alert() const noexcept { return alert_; }
    /// The server has asked for a certificate, and its alert speaks of one.
    [[nodiscard]] bool isIdentityRefused() const;
    /// The connection of the last message; null before the first, gone with the handle.
    [[nodiscard]] SSL* connection() const noexcept { return connection_; }
    /// Why the server's certificate proves nothing: one of X509_V_ERR_…, or X509_V_OK.
    [[nodiscard]] int verifyError() const noexcept { return verifyError_; }
    /// The server's own certificate, or the one in its chain that is at fault; null before it came.
    [[nodiscard]] const X509* certificate() const noexcept { return certificate_.get(); }

private:
    static CURLcode onContext(CURL* handle, void* context, void* self) noexcept;
    static int onVerify(int good, X509_STORE_CTX* store) noexcept;
    static void onMessage(int sent, int version, int type, const void* data, std::size_t size,
                          SSL* connection, void* self) noexcept;
    static int index() noexcept;

    bool begun_ = false;
    bool certificateWanted_ = false;
    bool taken_ = false;
    std::string alert_;
    SSL* connection_ = nullptr; // libcurl's
    int verifyError_ = X509_V_OK;
    CertificateRef certificate_;
};

} // namespace orvexd::probe
