#pragma once

#include "support/Deployment.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <curl/curl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace orvexd {

/// Pass phrase of the client key in plain text, for as short as possible: it is wiped when it goes
/// out of scope. The program file holds it only as words. Each character is the low byte of (word
/// XOR key) >> 6, and the key grows from word to word. Any thread.
class KeyPassphrase {
public:
    /// Characters of the pass phrase.
    static constexpr std::size_t kLength = deployment::kPassphraseWords.size();

    KeyPassphrase() noexcept { buildKeyPassphrase(); }
    ~KeyPassphrase() { explicit_bzero(text_.data(), text_.size()); }
    KeyPassphrase(const KeyPassphrase&) = delete;
    KeyPassphrase& operator=(const KeyPassphrase&) = delete;

    /// NUL-terminated, valid as long as this object. libcurl copies it.
    [[nodiscard]] const char* text() const noexcept { return text_.data(); }

private:
    void buildKeyPassphrase() noexcept {
        constexpr std::uint32_t kKeyStep = 65535;
        constexpr unsigned kNoiseBits = 6;
        // volatile: otherwise the compiler computes the characters and stores them in plain.
        volatile std::uint32_t key = deployment::kPassphraseKey;
        for (std::size_t i = 0; i < kLength; ++i) {
            const std::uint32_t word = deployment::kPassphraseWords[i] ^ key;
            text_[i] = static_cast<char>((word >> kNoiseBits) & 0xffU);
            key = key + kKeyStep;
        }
    }

    std::array<char, kLength + 1> text_{};
};

/// The options of a transfer to the positioning server, for the daemon and for the programs that
/// look for the reason of its failures: both go the same road with the same identity. Any thread.
struct TransferOptions {
    /// Seconds, as text of the settings, that hold unless the settings say otherwise: for the
    /// connection, name look-up and TLS included, and for the transfer from beginning to end.
    static constexpr const char* kConnectTimeout = "30";
    static constexpr const char* kTransferTimeout = "60";

    /// Names of the files below the directory of the preinstalled files.
    static constexpr const char* kCertificate = "/SlpClient.pem";
    static constexpr const char* kKey = "/SlpClient-key.pem";
    static constexpr const char* kAuthority = "/Positioning_CA.pem";

    /// What does not change from one transfer to the next: how names are resolved, TLS with the
    /// client certificate, the HTTP version. libcurl copies the texts; a file that is missing or
    /// faulty shows when the transfer begins.
    /// @param files directory of the three PEM files.
    static void setIdentity(CURL* handle, const std::string& files);

    /// Where the transfer goes: the deployment's server, straight or through a proxy.
    /// @param proxy "host:port", empty for none.
    static void setRoad(CURL* handle, const std::string& proxy);

    /// What holds for the connection's socket, see `socketOptionCallback`.
    static void setSocket(CURL* handle);

    /// A POST with these header lines, whose answer comes with its head.
    /// @param headers must outlive the handle.
    static void setMessage(CURL* handle, curl_slist* headers);

    /// Seconds for the connection and for everything; 0 stands for libcurl's own, which is 300 for
    /// the connection and none for everything (CURLOPT_CONNECTTIMEOUT(3), CURLOPT_TIMEOUT(3)).
    static void setTimeouts(CURL* handle, long connect, long whole);

    /// The header lines of a message whose parts are divided by `boundary`.
    [[nodiscard]] static std::vector<std::string> headerLines(const std::string& boundary);

    /// Clamps the TCP segment size of the connection's socket to 1200 bytes, whatever the path's
    /// MTU. A socket for another purpose stays as it is, and a refusal of the system is ignored.
    static int socketOptionCallback(void* client, curl_socket_t socket,
                                    curlsocktype purpose) noexcept;
};

inline void TransferOptions::setIdentity(CURL* handle, const std::string& files) {
    const KeyPassphrase passphrase;
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_DNS_CACHE_TIMEOUT, 0L);
    curl_easy_setopt(handle, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
    curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSLCERT, (files + kCertificate).c_str());
    curl_easy_setopt(handle, CURLOPT_SSLKEY, (files + kKey).c_str());
    curl_easy_setopt(handle, CURLOPT_KEYPASSWD, passphrase.text());
    curl_easy_setopt(handle, CURLOPT_CAINFO, (files + kAuthority).c_str());
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    // The message is one chunked POST, which HTTP/2 does not have; libcurl would accept h2.
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    // A name server that does not answer holds up the thread that asks it for minutes. libcurl
    // would wait for that thread after its own time-out has passed. This lets it go on without.
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
}

inline void TransferOptions::setRoad(CURL* handle, const std::string& proxy) {
    curl_easy_setopt(handle, CURLOPT_PROXY, proxy.c_str());
    curl_easy_setopt(handle, CURLOPT_NOPROXY, ""); // the platform decides, not the environment
    curl_easy_setopt(handle, CURLOPT_URL, deployment::kServerUrl);
}

inline void TransferOptions::setSocket(CURL* handle) {
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, &TransferOptions::socketOptionCallback);
}

inline void TransferOptions::setMessage(CURL* handle, curl_slist* headers) {
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_HEADER, 1L);
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
}

inline void TransferOptions::setTimeouts(CURL* handle, long connect, long whole) {
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, connect);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, whole);
}

inline std::vector<std::string> TransferOptions::headerLines(const std::string& boundary) {
    return {"Content-Type: multipart/related; type=\"text/xml\"; boundary=\"" + boundary +
                "\"; start=\"slpHeaderPart\"",
            "Transfer-Encoding: chunked", "Expect:"}; // no 100-continue round trip
}

inline int TransferOptions::socketOptionCallback(void* /*client*/, curl_socket_t socket,
                                                 curlsocktype purpose) noexcept {
    if (purpose == CURLSOCKTYPE_IPCXN) {
        const int segmentSize = 1200;
        (void)setsockopt(socket, IPPROTO_TCP, TCP_MAXSEG, &segmentSize, sizeof segmentSize);
    }
    return CURL_SOCKOPT_OK;
}

} // namespace orvexd
