#pragma once

#include <cstdint>
#include <string>

namespace orvexd {

/// What an exchange asks of the gateway core and reports to it.
class IExchangeOwner {
public:
    virtual ~IExchangeOwner() = default;

    // -- worker thread: these ask the platform or post, and change nothing of the owner --------

    /// "host:port" of the proxy for the server, empty for none. May block for as long as the
    /// platform does.
    virtual std::string proxyForServer() = 0;

    /// Posts the question for the request's data to its client. The data mutex is held.
    virtual void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) = 0;

    /// Posts that the request's data has room again. The data mutex is held.
    virtual void postUploadRoom(std::uint32_t connectionId, std::uint32_t requestId) = 0;

    /// Posts an announcement of the connection status as it is. The data mutex is held.
    virtual void announceConnectionStatus() = 0;

    /// Posts that the memory budget is full: what belongs to clients that have left the bus is to
    /// be given back.
    virtual void postMemoryShort() = 0;

    // -- main loop's thread --------------------------------------------------------------------

    /// The running exchange failed.
    /// @param code one of the failure codes.
    /// @param keyList the keys of its unfinished requests, in transfer order.
    virtual void onExchangeFailed(int code, const std::string& errorText,
                                  const std::string& keyList) = 0;

    /// The exchange ended, well or not, 50 ms ago. The owner may destroy it here.
    virtual void onExchangeFinished() = 0;
};

} // namespace orvexd
