#pragma once

#include <cstdint>
#include <string>

namespace orvexd {

/// What an exchange asks of the gateway core and reports to it.
class IExchangeOwner {
public:
    IExchangeOwner() = default;
    virtual ~IExchangeOwner() = default;
    IExchangeOwner(const IExchangeOwner&) = delete;
    IExchangeOwner& operator=(const IExchangeOwner&) = delete;
    IExchangeOwner(IExchangeOwner&&) = delete;
    IExchangeOwner& operator=(IExchangeOwner&&) = delete;

    /// "host:port" of the proxy for the server, empty for none. Worker thread.
    virtual std::string proxyForServer() = 0;

    /// Asks the request's client to send its data now. Worker thread, data mutex held: only posts.
    virtual void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) = 0;

    /// Announces the connection status anew. Worker thread, data mutex held: only posts.
    virtual void announceConnectionStatus() = 0;

    /// The exchange failed; `keyList` names its unfinished requests. Worker thread, no lock held.
    virtual void onExchangeFailed(std::uint32_t code, const std::string& errorText,
                                  const std::string& keyList) = 0;

    /// The exchange that was started as `number` has ended. Main loop's thread.
    virtual void onExchangeDone(std::uint64_t number) = 0;
};

} // namespace orvexd
