#include "probe/CheckRoad.h"

#include "support/Deployment.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <glib.h>
#include <memory>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <utility>

namespace orvexd::probe {

namespace {

using findings::Checked;
using findings::Report;

constexpr long kProxyAuthentication = 407;
/// Under TLS 1.3 a refusal of the client comes after the handshake, as late as a part of it.
constexpr std::chrono::milliseconds kWaitForRefusal{500};
constexpr double kHandshakesToWait = 4;

constexpr const char* kProxyAdvice =
    "Mend [Proxy] of the platform file, or have the proxy let the device through.";

constexpr const char* kIdentityAdvice =
    "Install the certificate that the operator of the server has made for this device; see the "
    "findings about files and dates.";

class RoadCheck {
public:
    RoadCheck(const Destination& destination, const Report& report)
        : destination_(destination),
          road_(destination.files, destination.proxy, destination.patience),
          names_("names", report),
          connection_("connection", report),
          tls_("tls", report) {}

    /// @return whether nothing is broken.
    bool run() {
        curl_easy_setopt(road_.handle(), CURLOPT_CONNECT_ONLY, 1L);
        road_.onAddress = [this] {
            names_.fine(peer() + " has the address " + road_.address() + ".");
        };
        road_.tls().onBegin = [this] { tellConnection(); };
        const CURLcode result = road_.travel();
        if (road_.address().empty()) {
            tellNameFailure(result);
        } else if (!road_.isOpen()) {
            tellConnectionFailure(result);
        } else {
            tellConnection();
            return tellTls(result);
        }
        return false;
    }

private:
    [[nodiscard]] bool hasProxy() const { return !destination_.proxy.empty(); }

    /// Who is called first.
    [[nodiscard]] std::string peer() const {
        return hasProxy() ? "The proxy " + destination_.proxy : "The server " + serverHost();
    }

    [[nodiscard]] std::string seconds() const {
        return std::to_string(destination_.patience.connect.count()) + " s";
    }

    /// Told once, before TLS begins or after it could not.
    void tellConnection() {
        if (std::exchange(connectionTold_, true)) {
            return;
        }
        connection_.fine(hasProxy() ? peer() + " has opened the way to " + serverHost() + "."
                                    : peer() + " takes connections.");
    }

    void tellNameFailure(CURLcode result) {
        const std::string advice =
            hasProxy() ? "Check the host in [Proxy] of the platform file, and the name servers in "
                         "/etc/resolv.conf."
                       : "Check the name servers in /etc/resolv.conf. A device without a name "
                         "server of its own reaches the server through a proxy only.";
        if (result == CURLE_OPERATION_TIMEDOUT) {
            names_.broken("No name server has answered within " + seconds() + ".", advice);
        } else {
            names_.broken(peer() + " has no address: " + road_.text() + ".", advice);
        }
        connection_.unknown("Not tried: there is no address.");
        tls_.unknown("Not tried: there is no connection.");
    }

    void tellConnectionFailure(CURLcode result) {
        if (road_.isConnected() && hasProxy()) {
            tellProxyFailure(result);
        } else if (result == CURLE_OPERATION_TIMEDOUT) {
            connection_.broken(peer() + " has not taken a connection within " + seconds() + ".",
                               "Something on the way swallows the packets: a firewall, a wrong "
                               "route, or a wrong address.");
        } else if (road_.systemError() == ECONNREFUSED) {
            connection_.broken(peer() + " refuses the connection: nothing listens on that port.",
                               hasProxy() ? kProxyAdvice
                                          : "Check the port, and that the server runs.");
        } else {
            connection_.broken(peer() + " cannot be reached: " + road_.text() + ".",
                               "Check the network connection and its routes.");
        }
        tls_.unknown("Not tried: there is no connection.");
    }

    void tellProxyFailure(CURLcode result) {
        const long status = road_.proxyStatus();
        if (status == kProxyAuthentication) {
            connection_.broken(peer() + " wants a name and a password (407). The daemon has none.",
                               "Have the proxy let the device through without them.");
        } else if (status >= Road::kFirstRefusal) {
            connection_.broken(peer() + " refuses to connect to " + serverHost() + ": it says " +
                                   std::to_string(status) + ".",
                               "A 502, 503 or 504 means that the proxy cannot reach the server; "
                               "any other number that its rules forbid it.");
        } else if (status != 0) {
            connection_.broken(peer() + " says " + std::to_string(status) +
                                   " and does not come to the end of its answer: " + road_.text() +
                                   ".",
                               kProxyAdvice);
        } else if (result == CURLE_OPERATION_TIMEDOUT) {
            connection_.broken(peer() + " takes the connection and says nothing for " + seconds() +
                                   ".",
                               kProxyAdvice);
        } else {
            connection_.broken(peer() + " does not answer like a proxy: " + road_.text() + ".",
                               kProxyAdvice);
        }
    }

    bool tellTls(CURLcode result) {
        if (result != CURLE_OK) {
            tellTlsFailure(road_, result, tls_);
            return false;
        }
        const SSL* const connection = road_.tls().connection();
        const std::string version = SSL_get_version(connection);
        const bool taken = SSL_version(connection) != TLS1_3_VERSION || isTaken();
        if (!taken) {
            tellEnd();
        } else if (!road_.tls().isCertificateWanted()) {
            tls_.fine(version + " stands. The server asks for no client certificate.");
        } else {
            tls_.fine(version +
                      " stands. The server has asked for the device's certificate and has not "
                      "refused it so far; only --exchange tells whether it does. The server's: " +
                      describe(serverCertificate()) + ".");
        }
        return taken;
    }

    [[nodiscard]] const X509* serverCertificate() const { return road_.tls().certificate(); }

    /// The server has ended the connection when TLS stood.
    void tellEnd() const {
        const TlsWatch& tls = road_.tls();
        if (tls.isIdentityRefused()) {
            tls_.broken("The server refuses the device's certificate after the handshake: \"" +
                            tls.alert() + "\".",
                        kIdentityAdvice);
        } else if (!tls.alert().empty()) {
            tls_.broken("The server ends the connection after the handshake: \"" + tls.alert() +
                            "\".",
                        "Ask the operator of the server.");
        } else if (tls.isCertificateWanted()) {
            tls_.broken("The server ends the connection after the handshake without a word. It had "
                        "asked for the device's certificate and may refuse it.",
                        kIdentityAdvice);
        } else {
            tls_.broken("The server ends the connection after the handshake without a word. It had "
                        "not asked for the device's certificate.",
                        "Something else than a positioning server may listen there, or a server "
                        "that has crashed: ask its operator.");
        }
    }

    /// Reads on until the server has taken or refused the client, or says nothing.
    bool isTaken() {
        double handshake = 0; // seconds from the beginning
        (void)curl_easy_getinfo(road_.handle(), CURLINFO_APPCONNECT_TIME, &handshake);
        const gint64 end = g_get_monotonic_time() +
                           std::chrono::microseconds(kWaitForRefusal).count() +
                           static_cast<gint64>(kHandshakesToWait * handshake * G_USEC_PER_SEC);
        curl_socket_t socket = CURL_SOCKET_BAD;
        (void)curl_easy_getinfo(road_.handle(), CURLINFO_ACTIVESOCKET, &socket);
        while (!road_.tls().isTaken()) {
            std::array<char, 256> data{};
            std::size_t count = 0;
            const CURLcode result =
                curl_easy_recv(road_.handle(), data.data(), data.size(), &count);
            if (result != CURLE_AGAIN) {
                return result == CURLE_OK && count > 0; // it speaks before it is asked
            }
            const gint64 left = (end - g_get_monotonic_time()) / 1000;
            pollfd readable{socket, POLLIN, 0};
            if (left <= 0 || poll(&readable, 1, static_cast<int>(left)) == 0) {
                return true;
            }
        }
        return true;
    }

    const Destination& destination_;
    Road road_;
    Checked names_;
    Checked connection_;
    Checked tls_;
    bool connectionTold_ = false;
};

std::string adviceOn(int verifyError) {
    switch (verifyError) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "The server needs a new certificate, unless the device's clock is ahead.";
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "Set the device's clock, unless the server has its certificate too early.";
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
        return "Positioning_CA.pem is not the authority that signed it: install the operator's "
               "authority. If the certificate above is not the operator's, something on the way "
               "answers in the server's place.";
    default:
        return "Ask the operator of the server.";
    }
}

void tellVerifyFailure(const Road& road, const Checked& report) {
    const TlsWatch& tls = road.tls();
    const std::string shown =
        tls.certificate() == nullptr ? "" : " It shows " + describe(tls.certificate()) + ".";
    if (tls.verifyError() != X509_V_OK) {
        report.broken(std::string("The server's certificate proves nothing: ") +
                          X509_verify_cert_error_string(tls.verifyError()) + "." + shown,
                      adviceOn(tls.verifyError()));
        return;
    }
    const std::string hosts = tls.certificate() == nullptr ? "" : hostsOf(tls.certificate());
    report.broken("The server's certificate is for another host name: " + hosts + ", not for " +
                      serverHost() + "." + shown,
                  "The name leads to another server, or the server has the wrong certificate.");
}

} // namespace

void tellTlsFailure(const Road& road, CURLcode result, const Checked& report) {
    const TlsWatch& tls = road.tls();
    switch (result) {
    case CURLE_SSL_CERTPROBLEM:
        report.broken("The device's certificate or its key cannot be used: " + road.text() + ".",
                      "See the findings about files.");
        break;
    case CURLE_SSL_CACERT_BADFILE:
        report.broken("The authority's file cannot be used: " + road.text() + ".",
                      "See the findings about files.");
        break;
    case CURLE_PEER_FAILED_VERIFICATION:
        tellVerifyFailure(road, report);
        break;
    case CURLE_OPERATION_TIMEDOUT:
        report.broken("The server takes the connection and does not finish the TLS handshake.",
                      "Something else than a TLS server may listen there, or something on the way "
                      "swallows large packets.");
        break;
    default:
        if (tls.alert().empty()) {
            report.broken("The TLS handshake broke off: " + road.text() + ".",
                          "Something on the way, or the server, ends the connection. Something "
                          "else than a TLS server may listen there.");
        } else if (tls.isIdentityRefused()) {
            report.broken("The server refuses the device's certificate: \"" + tls.alert() + "\".",
                          kIdentityAdvice);
        } else if (tls.isCertificateWanted()) {
            report.broken("The server breaks off the TLS handshake: \"" + tls.alert() + "\".",
                          "It had asked for the device's certificate and may refuse it. Otherwise "
                          "server and daemon have no version of TLS or no cipher in common.");
        } else {
            report.broken("The server breaks off the TLS handshake: \"" + tls.alert() + "\".",
                          "Server and daemon have no version of TLS or no cipher in common.");
        }
    }
}

std::string serverHost() {
    std::string host = deployment::kServerUrl;
    host.erase(0, host.find("//") + 2);
    return host.substr(0, host.find_first_of(":/"));
}

bool checkRoad(const Destination& destination, const Report& report) {
    return RoadCheck(destination, report).run();
}

} // namespace orvexd::probe
