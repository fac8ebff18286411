#include "http/HandleOptions.h"

#include "http/KeyPassphrase.h"

namespace orvexd {

void setHandleOptions(CURL* handle, const std::string& files) {
    const KeyPassphrase passphrase;
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_DNS_CACHE_TIMEOUT, 0L);
    curl_easy_setopt(handle, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
    curl_easy_setopt(handle, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1));
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(handle, CURLOPT_SSLCERT, (files + "/SlpClient.pem").c_str());
    curl_easy_setopt(handle, CURLOPT_SSLKEY, (files + "/SlpClient-key.pem").c_str());
    curl_easy_setopt(handle, CURLOPT_KEYPASSWD, passphrase.text());
    curl_easy_setopt(handle, CURLOPT_CAINFO, (files + "/Positioning_CA.pem").c_str());
    curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
    // The message is one chunked POST, which HTTP/2 does not have; libcurl would accept h2.
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    // A name server that does not answer holds up the thread that asks it for minutes. libcurl
    // would wait for that thread when its time-out has passed; so it leaves it to itself.
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
}

} // namespace orvexd
