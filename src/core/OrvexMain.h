#pragma once

#include "config/MapWrapper.h"
#include "core/RequestRegistry.h"
#include "core/ServicePosts.h"
#include "http/Exchange.h"
#include "http/HttpClient.h"
#include "http/IExchangeOwner.h"
#include "network/OrvexNetworkManager.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

struct ConnectionParameters;

/// The gateway core: holds every client connection and request, decides when an exchange starts,
/// and turns the outcome of exchanges and network changes into posts to the service.
///
/// Main loop's thread only, so there is no lock. Of its members, the worker uses the proxy look-up
/// of the network manager and the posts, which any thread may use.
class OrvexMain : public IExchangeOwner, public INetworkOwner {
public:
    /// Starts to follow the platform's connections. `service` must outlive this object; posts that
    /// have not arrived when this object ends are dropped.
    explicit OrvexMain(IServiceEvents& service);
    /// Ends a running exchange first, see `shutdown`.
    ~OrvexMain() override;
    OrvexMain(const OrvexMain&) = delete;
    OrvexMain& operator=(const OrvexMain&) = delete;

    /// Parameter map of the class: the two open durations.
    static Parameters& getConfiguration();
    /// Stores a value; a later one for the same key replaces it.
    static void setParameter(const std::string& key, const std::string& value);
    /// As `setParameter`, but an empty value changes nothing.
    static void setParameterIfSet(const std::string& key, const std::string& value);

    // -- operations of the clients ------------------------------------------------------------

    /// Opens a client connection. The strings may hold any bytes.
    /// @param chunkSize bytes that one getData brings at the most.
    /// @return the id of the new connection; the first one is 1.
    std::uint32_t openConnection(std::string elementName, std::string type, std::string version,
                                 std::string transferEncoding, std::string contentType,
                                 std::uint32_t chunkSize);

    /// Cancels the connection's requests and forgets the connection. Requests that are part of an
    /// exchange live, cancelled, until it ends.
    void closeConnection(std::uint32_t connectionId);

    /// Creates a request that waits until an exchange takes it along.
    /// @param openDuration without a unit; reaches a hook that does nothing.
    /// @return its id, unique over all connections.
    /// @throws int 1001 for an unknown connection, 2204 when no exchange could be started.
    std::uint32_t attachRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                std::uint32_t openDuration);

    /// Creates a request and starts an exchange if none runs. As `attachRequest`, but also throws
    /// 2204 when the current connection is not allowed.
    std::uint32_t prepareRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                 std::uint32_t openDuration);

    /// Gives data to the request that the transfer asks for, and wakes the worker.
    /// @param last the data ends the request's part.
    /// @return 0, 1001 unknown connection, 41 unknown request, 57 not asked for.
    [[nodiscard]] int sendData(std::string_view bytes, bool last, std::uint32_t connectionId,
                               std::uint32_t requestId);

    /// Whether so much of the request's data waits for the transfer that its client should send no
    /// more for now. If so, the service hears when that has ended.
    [[nodiscard]] bool isUploadCrowded(std::uint32_t connectionId, std::uint32_t requestId) const;

    /// Asks for the next response chunk, which is posted when there is one.
    /// @throws int 41 for an unknown request.
    void getData(std::uint32_t connectionId, std::uint32_t requestId);

    /// Cancels a request: at once while it waits, otherwise at the end of its exchange. Nothing
    /// happens when the request is unknown.
    void cancelRequest(std::uint32_t connectionId, std::uint32_t requestId);

    /// The current status value; a change is stored and announced.
    std::uint32_t connectionStatus();

    /// Ends a running exchange, joins its worker and forgets all requests and connections; no
    /// exchange starts any more. May take as long as the worker waits for client data. Idempotent.
    void shutdown();

    // -- when an exchange may start -----------------------------------------------------------

    /// The only place where an exchange begins. Drops and reports prepared requests that the
    /// current connection does not allow.
    /// @return false when the exchange may not begin, or no worker could be started. True does not
    ///   say that one has begun: there may be nothing to send.
    bool startExchange();
    /// True while a worker runs an exchange. After a success the next exchange starts 50 ms later
    /// at the earliest.
    [[nodiscard]] bool isTransferRunning() const noexcept;
    /// Whether a waiting request could start an exchange now.
    [[nodiscard]] bool hasSendableRequest();
    /// Whether `policy` allows the current connection; "no connection" is allowed for 2 and 3.
    [[nodiscard]] bool connectionAllowed(std::uint32_t policy);
    /// The largest open duration asked for, or the configured default.
    [[nodiscard]] std::uint32_t connectionOpenDuration() const;

    // -- INetworkOwner ------------------------------------------------------------------------

    void onConnectionStatus(std::uint32_t status, bool recheck) override;
    void onNetworkAvailable() override;
    void onConnectionLost() override;
    void requestFreshConnect() override { client_.requestFreshConnect(); }

    // -- IExchangeOwner -----------------------------------------------------------------------

    std::string proxyForServer() override { return networkManager_.proxyFor(); }
    void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) override;
    void postUploadRoom(std::uint32_t connectionId, std::uint32_t requestId) override;
    void postMemoryShort() override;
    void announceConnectionStatus() override;
    void onExchangeFailed(int code, const std::string& errorText,
                          const std::string& keyList) override;
    /// Drops finished requests and starts the next exchange if one is wanted.
    void onExchangeFinished() override;

private:
    using RequestPointer = RequestRegistry::Pointer;
    using Requests = std::vector<RequestPointer>;

    std::uint32_t createRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                std::uint32_t openDuration, bool prepared);
    void cancelLive(const RequestPointer& request);
    void postFinished(const Requests& requests);
    void reportFailure(const char* message, const Requests& failed);
    [[nodiscard]] bool isExchangeWorthwhile();
    [[nodiscard]] Requests collectSendable();
    [[nodiscard]] static Requests::const_iterator endOfMessage(const Requests& queue);
    [[nodiscard]] bool startWorker(Requests queue);
    void storeStatus(std::uint32_t status);
    void raiseOpenDuration(std::uint32_t duration);
    void collectDeviceIdentifiers();

    IServiceEvents& service_;
    ServicePosts posts_;
    HttpClient client_;

    std::uint32_t lastConnectionId_ = 0;
    std::uint32_t lastRequestId_ = 0;
    std::map<std::uint32_t, std::shared_ptr<const ConnectionParameters>> connections_;
    RequestRegistry requests_;
    std::uint32_t reportedStatus_ = 0;
    std::uint32_t openDuration_ = 0; // never lowered
    std::string imsi_;
    std::string imei_;
    std::string fwId_;
    bool closing_ = false;
    OrvexNetworkManager networkManager_; // it calls this object until it is gone
    std::unique_ptr<Exchange> exchange_; // the newest, until its end has been dealt with
};

} // namespace orvexd
