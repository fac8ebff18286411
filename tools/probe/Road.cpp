#include "probe/Road.h"

#include "http/TransferOptions.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace orvexd::probe {

namespace {

template <typename Value> Value infoOf(CURL* handle, CURLINFO info) {
    Value value{};
    (void)curl_easy_getinfo(handle, info, &value);
    return value;
}

/// Whether libcurl was ready for TLS and could not begin with it.
bool isFaultOfTls(CURLcode result) {
    switch (result) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
        return true;
    default:
        return false;
    }
}

} // namespace

Road::Road(const std::string& files, const std::string& proxy, const Patience& patience)
    : hasProxy_(!proxy.empty()), handle_(curl_easy_init()) {
    CURL* const handle = handle_.get();
    TransferOptions::setIdentity(handle, files);
    TransferOptions::setRoad(handle, proxy);
    TransferOptions::setSocket(handle);
    TransferOptions::setTimeouts(handle, static_cast<long>(patience.connect.count()),
                                 static_cast<long>(patience.whole.count()));
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText_.data());
    curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, &Road::onSocket);
    curl_easy_setopt(handle, CURLOPT_OPENSOCKETDATA, this);
    tls_.observe(handle);
}

CURLcode Road::travel() {
    result_ = curl_easy_perform(handle_.get());
    return result_;
}

std::string Road::text() const {
    return errorText_.front() != '\0' ? errorText_.data() : curl_easy_strerror(result_);
}

bool Road::isConnected() const {
    // The time of the connection is not told when the proxy refuses.
    return result_ != CURLE_COULDNT_CONNECT && infoOf<long>(handle_.get(), CURLINFO_LOCAL_PORT) > 0;
}

long Road::proxyStatus() const {
    return infoOf<long>(handle_.get(), CURLINFO_HTTP_CONNECTCODE);
}

bool Road::isOpen() const {
    if (tls_.hasBegun()) {
        return true;
    }
    // A proxy that has said 200 may still be in its head. TLS that could not begin is behind it.
    const long status = proxyStatus();
    return isConnected() &&
           (!hasProxy_ || (status > 0 && status < kFirstRefusal && isFaultOfTls(result_)));
}

int Road::systemError() const {
    return static_cast<int>(infoOf<long>(handle_.get(), CURLINFO_OS_ERRNO));
}

curl_socket_t Road::onSocket(void* self, curlsocktype /*purpose*/,
                             curl_sockaddr* address) noexcept {
    try {
        static_cast<Road*>(self)->tellAddress(*address);
    } catch (...) {
        return CURL_SOCKET_BAD; // nobody could be told
    }
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

void Road::tellAddress(const curl_sockaddr& address) {
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    const bool isFirst = address_.empty();
    if (getnameinfo(&address.addr, address.addrlen, host.data(), host.size(), port.data(),
                    port.size(), NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
        address_ = std::string(host.data()) + " port " + port.data();
    }
    if (isFirst && onAddress) {
        onAddress();
    }
}

} // namespace orvexd::probe
