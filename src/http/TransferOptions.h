#pragma once

#include <curl/curl.h>
#include <string>
#include <vector>

namespace orvexd {

/// The options of a transfer to the positioning server, for the daemon and for the programs that
/// look for the reason of its failures: both go the same road with the same identity. Any thread.
struct TransferOptions {
    /// Seconds, as text of the settings, that hold unless the settings say otherwise.
    static constexpr const char* kConnectTimeout = "30";
    static constexpr const char* kTransferTimeout = "60";

    /// Names of the files below the directory of the preinstalled files.
    static constexpr const char* kCertificate = "/SlpClient.pem";
    static constexpr const char* kKey = "/SlpClient-key.pem";
    static constexpr const char* kAuthority = "/Positioning_CA.pem";

    /// What does not change from one transfer to the next: how names are resolved, TLS with the
    /// client certificate, the HTTP version.
    /// @param files directory of the three PEM files.
    static void setIdentity(CURL* handle, const std::string& files);

    /// Where the transfer goes.
    /// @param proxy "host:port", empty for none.
    static void setRoad(CURL* handle, const std::string& proxy);

    /// What holds for the connection's socket, see `clampSegmentSize`.
    static void setSocket(CURL* handle);

    /// A POST with these header lines, whose answer comes with its head.
    /// @param headers must outlive the handle.
    static void setMessage(CURL* handle, curl_slist* headers);

    /// Seconds for the connection and for everything; 0 stands for libcurl's own.
    static void setTimeouts(CURL* handle, long connect, long whole);

    /// The header lines of a message whose parts are divided by `boundary`.
    [[nodiscard]] static std::vector<std::string> headerLines(const std::string& boundary);

    /// Clamps the TCP segment size of the connection's socket to 1200 bytes, whatever the path's
    /// MTU. A socket for another purpose stays as it is, and a refusal of the system is ignored.
    static int clampSegmentSize(void* client, curl_socket_t socket, curlsocktype purpose) noexcept;
};

} // namespace orvexd
