#pragma once

#include "probe/TlsWatch.h"
#include "support/CurlHandles.h"

#include <array>
#include <chrono>
#include <curl/curl.h>
#include <functional>
#include <string>

namespace orvexd::probe {

/// How patient the probe is where the daemon would wait longer.
struct Patience {
    std::chrono::seconds connect{0}; ///< until TLS stands
    std::chrono::seconds whole{0};   ///< for an exchange
};

/// A way to the server as the daemon takes it, with everything that can be seen on it. One
/// connection.
class Road {
public:
    /// The first HTTP status of a proxy that has not opened the way.
    static constexpr long kFirstRefusal = 300;

    /// @param files directory of the three PEM files. @param proxy "host:port", empty for none.
    Road(const std::string& files, const std::string& proxy, const Patience& patience);
    ~Road() = default;
    Road(const Road&) = delete;
    Road& operator=(const Road&) = delete;

    /// Called when a name has become an address, before anybody is called there.
    std::function<void()> onAddress;
    /// Goes the whole way. @return libcurl's result, which `text` has in words.
    CURLcode travel();

    [[nodiscard]] CURL* handle() const noexcept { return handle_.get(); }
    [[nodiscard]] TlsWatch& tls() noexcept { return tls_; }
    [[nodiscard]] const TlsWatch& tls() const noexcept { return tls_; }

    /// libcurl's words for the last failure.
    [[nodiscard]] std::string text() const;
    /// Of the server or of the proxy; empty while the name has none.
    [[nodiscard]] const std::string& address() const noexcept { return address_; }
    /// Somebody has taken the call.
    [[nodiscard]] bool isConnected() const;
    /// The proxy's answer to CONNECT; 0 for none.
    [[nodiscard]] long proxyStatus() const;
    /// The way to the server is open: TLS may begin.
    [[nodiscard]] bool isOpen() const;
    /// errno of the connection.
    [[nodiscard]] int systemError() const;

private:
    static curl_socket_t onSocket(void* self, curlsocktype purpose,
                                  curl_sockaddr* address) noexcept;

    void tellAddress(const curl_sockaddr& address);

    const bool hasProxy_;
    CURLcode result_ = CURLE_OK;
    std::string address_;
    TlsWatch tls_;
    std::array<char, CURL_ERROR_SIZE> errorText_{};
    EasyHandle handle_; // last: it uses the others
};

} // namespace orvexd::probe
