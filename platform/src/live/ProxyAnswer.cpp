#include "live/ProxyAnswer.h"

#include "Handles.h"
#include "trilba/network/ProxyQuery.h"

#include <string_view>

namespace trilba::live {

namespace {

constexpr std::uint32_t kHttpPort = 80; // of a URI that names none

using Uri = std::unique_ptr<GUri, FreeWith<g_uri_unref>>;

/// The answer without what may be secret in it.
std::string shown(const std::string& answer) {
    const auto scheme = answer.find("://");
    const auto at = answer.rfind('@');
    if (scheme == std::string::npos || at == std::string::npos || at < scheme) {
        return answer;
    }
    return answer.substr(0, scheme + 3) + "..." + answer.substr(at);
}

std::string hostOf(GUri* uri) {
    const char* host = g_uri_get_host(uri);
    const std::string text = host == nullptr ? "" : host;
    return text.find(':') == std::string::npos ? text : '[' + text + ']';
}

/// @return nothing, and `fault` says why, when the proxy cannot be used.
std::optional<ProxyAnswer> httpProxy(const std::string& answer, std::string& fault) {
    const Uri uri(g_uri_parse(answer.c_str(), G_URI_FLAGS_HAS_PASSWORD, nullptr));
    if (!uri || std::string_view(g_uri_get_scheme(uri.get())) != "http") {
        fault = "only http:// proxies can be used";
        return std::nullopt;
    }
    ProxyAnswer proxy{hostOf(uri.get()), std::nullopt, {}};
    if (proxy.host.empty() || proxy.host.size() >= network::ProxyQuery::kHostCapacity) {
        fault = "its host must have 1 to 131 bytes";
        return std::nullopt;
    }
    if (g_uri_get_userinfo(uri.get()) != nullptr) {
        fault = "its user name and password cannot be used";
        return std::nullopt;
    }
    const int port = g_uri_get_port(uri.get());
    proxy.port = port > 0 ? static_cast<std::uint32_t>(port) : kHttpPort;
    return proxy;
}

} // namespace

ProxyAnswer proxyAnswerOf(const std::vector<std::string>& answers) {
    std::string remark;
    for (const std::string& answer : answers) {
        if (answer.starts_with("direct:")) {
            return {{}, std::nullopt, remark};
        }
        std::string fault;
        if (auto proxy = httpProxy(answer, fault); proxy) {
            proxy->remark = remark;
            return *proxy;
        }
        if (remark.empty()) {
            remark = "the proxy " + shown(answer) + " is not used: " + fault;
        }
    }
    return {{}, std::nullopt, remark};
}

} // namespace trilba::live
