#include "Advice.h"

#include "Printable.h"
#include "protocol/Codes.h"

#include <array>

namespace orvexd::ctl {
namespace {

struct TextAdvice {
    std::string_view text;
    std::string_view advice;
};

constexpr std::string_view kRefusedOrGone =
    "The connection ended in the middle. The likeliest causes: the server does not accept the "
    "daemon's client certificate, the proxy refuses (407 asks for a name and a password, which "
    "the daemon has not) or is no HTTP proxy, or the server or something on the way to it broke "
    "off. 'orvexctl doctor' tells which.";

constexpr std::string_view kNoHost =
    "The server's host name could not be resolved. Check the name server of this network; "
    "'orvexctl doctor' looks the name up.";
constexpr std::string_view kNoProxyHost =
    "The proxy's host name could not be resolved. Check the proxy in the platform's settings and "
    "the name server of this network.";
constexpr std::string_view kNobodyListens =
    "Nobody accepts connections at the address of the server, or of the proxy if there is one: the "
    "port is closed, or a firewall refuses. 'orvexctl doctor' says which address it is.";

/// Texts of libcurl 7.88; where later ones differ, their texts stand behind.
constexpr std::array kTransferAdvice{
    TextAdvice{
        "Connection error",
        "There is no network connection, or the platform's settings are missing or faulty so "
        "that the daemon sees none. See 'orvexctl status', and bring up a network; 'orvexctl "
        "doctor' names the line of the settings that is wrong."},
    TextAdvice{"Current network connection not allowed",
               "The request may not use the network connection that there is. See 'orvexctl "
               "status'; allow more with --policy, or bring up another network."},
    TextAdvice{"Unsupported protocol",
               "libcurl cannot use the proxy. Its setting is a host name and a port, without "
               "'http://' or another scheme in front."},
    TextAdvice{"Couldn't resolve proxy name", kNoProxyHost},
    TextAdvice{"Could not resolve proxy name", kNoProxyHost},
    TextAdvice{"Couldn't resolve host name", kNoHost},
    TextAdvice{"Could not resolve hostname", kNoHost},
    TextAdvice{"Couldn't connect to server", kNobodyListens},
    TextAdvice{"Could not connect to server", kNobodyListens},
    TextAdvice{"Weird server reply",
               "What answers is no HTTP server. Check the address and the port of the server and "
               "of the proxy: 'orvexctl doctor' goes the same road."},
    TextAdvice{"Transferred a partial file",
               "The connection ended in the middle of the answer. Try again; if it stays so, tell "
               "the operator of the server or of the proxy."},
    TextAdvice{"Failed writing received data to disk/application",
               "The daemon could not take the answer: it is short of memory, or the answer is "
               "larger than it stores. See 'systemctl status orvexd'."},
    TextAdvice{"Out of memory",
               "The device is short of memory. End other programs, and try again."},
    TextAdvice{"Timeout was reached",
               "The time ran out: 30 seconds for the connection, or 60 seconds for all of the "
               "exchange. The server or the proxy is silent or slow, or clients in the same "
               "exchange deliver their data late. 'orvexctl doctor' tells how far it gets."},
    TextAdvice{"SSL connect error",
               "TLS with the server failed. The likeliest causes: it does not accept the daemon's "
               "client certificate, what answers does not speak TLS, it has no TLS version and "
               "cipher in common, or the server or something on the way to it broke off. 'orvexctl "
               "doctor' tells which."},
    TextAdvice{"Server returned nothing (no headers, no data)",
               "The server closed the connection without an answer. It may not accept the daemon's "
               "client certificate, or it does not speak HTTP. 'orvexctl doctor' tells which."},
    TextAdvice{"Failed sending data to the peer", kRefusedOrGone},
    TextAdvice{"Failure when receiving data from the peer", kRefusedOrGone},
    TextAdvice{"Problem with the local SSL certificate",
               "The daemon cannot use its own certificate. Check SlpClient.pem and "
               "SlpClient-key.pem: both there, in PEM form, owned by root, readable, made for each "
               "other, and the key encrypted with the pass phrase of this build. 'orvexctl doctor' "
               "as root tells which."},
    TextAdvice{
        "SSL peer certificate or SSH remote key was not OK",
        "The server's certificate is not trusted. The likeliest causes: it is self-signed or "
        "was issued by an authority other than Positioning_CA.pem, it has expired or is not "
        "yet valid, or the device's clock is wrong, or it names another host. 'orvexctl "
        "doctor' tells which."},
    TextAdvice{"Problem with the SSL CA cert (path? access rights?)",
               "The daemon cannot read the authority's certificate. Check Positioning_CA.pem: "
               "there, owned by root, readable, and in PEM form."},
    TextAdvice{"Operation was aborted by an application callback",
               "The daemon broke the exchange off, since it ends or ran out of memory. See "
               "'systemctl status orvexd', and try again."},
};

constexpr std::array kAnswerAdvice{
    TextAdvice{"missing MIME parts",
               "The server was reached, but its answer has nothing for this request: an error page "
               "(404, 413, 502), or a message that the daemon does not understand. Ask 'orvexctl "
               "doctor --exchange' what the server said."},
    TextAdvice{
        "faulty MIME data",
        "The server was reached, but its answer is no valid multipart message. Ask "
        "'orvexctl doctor --exchange' what the server said, and tell the server's operator."},
    TextAdvice{
        "could not parse document",
        "The server was reached, but its answer does not begin with a valid XML part. Ask "
        "'orvexctl doctor --exchange' what the server said, and tell the server's operator."},
};

template <std::size_t Size>
std::string_view find(const std::array<TextAdvice, Size>& table, std::string_view text) {
    for (const TextAdvice& entry : table) {
        if (entry.text == text) {
            return entry.advice;
        }
    }
    return {};
}

} // namespace

std::string_view adviceFor(std::uint32_t code, std::string_view text) {
    std::string_view advice;
    if (code == failure::kNoConnection) {
        advice = find(kTransferAdvice, text);
        if (advice.empty() && !text.empty()) {
            advice = "The server was reached and refused the HTTP request. Ask 'orvexctl doctor "
                     "--exchange' what it said.";
        }
    } else if (code == failure::kExchangeFailed) {
        advice = find(kAnswerAdvice, text);
        if (advice.empty() && !text.empty()) {
            advice = "The server was reached and refused the request. Check --element, --type, "
                     "--request-version and the input against what the server expects, and "
                     "whether it lets this device in; 'orvexctl doctor --exchange' shows what it "
                     "said.";
        }
    }
    return advice;
}

std::string firstLine(std::string_view text) {
    return printable(text.substr(0, text.find_first_of("\r\n")));
}

} // namespace orvexd::ctl
