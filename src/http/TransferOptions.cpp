#include "http/TransferOptions.h"

#include "http/KeyPassphrase.h"
#include "support/Deployment.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace orvexd {

void TransferOptions::setIdentity(CURL* handle, const std::string& files) {
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

void TransferOptions::setRoad(CURL* handle, const std::string& proxy) {
    curl_easy_setopt(handle, CURLOPT_PROXY, proxy.c_str());
    curl_easy_setopt(handle, CURLOPT_NOPROXY, ""); // the platform decides, not the environment
    curl_easy_setopt(handle, CURLOPT_URL, deployment::kServerUrl);
}

void TransferOptions::setSocket(CURL* handle) {
    curl_easy_setopt(handle, CURLOPT_SOCKOPTFUNCTION, &TransferOptions::clampSegmentSize);
}

void TransferOptions::setMessage(CURL* handle, curl_slist* headers) {
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_HEADER, 1L);
    curl_easy_setopt(handle, CURLOPT_POST, 1L);
}

void TransferOptions::setTimeouts(CURL* handle, long connect, long whole) {
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT, connect);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT, whole);
}

std::vector<std::string> TransferOptions::headerLines(const std::string& boundary) {
    return {"Content-Type: multipart/related; type=\"text/xml\"; boundary=\"" + boundary +
                "\"; start=\"slpHeaderPart\"",
            "Transfer-Encoding: chunked", "Expect:"}; // no 100-continue round trip
}

int TransferOptions::clampSegmentSize(void* /*client*/, curl_socket_t socket,
                                      curlsocktype purpose) noexcept {
    if (purpose == CURLSOCKTYPE_IPCXN) {
        const int segmentSize = 1200;
        (void)setsockopt(socket, IPPROTO_TCP, TCP_MAXSEG, &segmentSize, sizeof segmentSize);
    }
    return CURL_SOCKOPT_OK;
}

} // namespace orvexd
