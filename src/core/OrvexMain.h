#pragma once

#include "core/ConnectionParameters.h"
#include "core/IChunkReceiver.h"
#include "core/IServiceEvents.h"
#include "core/RequestRegistry.h"
#include "core/ServicePosts.h"
#include "http/HttpClient.h"
#include "http/IExchangeOwner.h"
#include "network/INetworkOwner.h"
#include "network/OrvexNetworkManager.h"
#include "support/Locks.h"
#include "support/WorkerThread.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

/// The gateway core: holds every client connection and request, decides when an exchange starts,
/// and turns the outcome of exchanges and network changes into posts to the service.
///
/// All operations run on the main loop's thread unless they say otherwise. Lock order:
/// `requestsLock` before a connection, id or network lock, and before the transfer's data mutex,
/// which in turn comes before a request's own lock.
class OrvexMain : public HttpClient,
                  public IExchangeOwner,
                  public INetworkOwner,
                  public IChunkReceiver {
public:
    /// Starts to follow the platform's connections. `service` must outlive this object; posts that
    /// are still under way when this object ends are dropped.
    explicit OrvexMain(IServiceEvents& service);
    /// Ends a running exchange first, see `shutdown`.
    ~OrvexMain() override;
    OrvexMain(const OrvexMain&) = delete;
    OrvexMain& operator=(const OrvexMain&) = delete;
    OrvexMain(OrvexMain&&) = delete;
    OrvexMain& operator=(OrvexMain&&) = delete;

    /// Parameter map of the class: the two open durations.
    static Parameters& getConfiguration();
    static void setParameter(const std::string& key, const std::string& value);
    /// As `setParameter`, but an empty value changes nothing.
    static void setParameterIfSet(const std::string& key, const std::string& value);

    // -- operations of the clients ------------------------------------------------------------

    /// @return the id of the new connection; the first one is 1.
    std::uint32_t openConnection(std::string elementName, std::string type, std::string version,
                                 std::string transferEncoding, std::string contentType,
                                 std::uint32_t chunkSize);

    /// Cancels the connection's requests and forgets the connection. Requests that are part of an
    /// exchange live, cancelled, until it ends.
    void closeConnection(std::uint32_t connectionId);

    /// Creates a request that waits until an exchange takes it along.
    /// @return its id, unique over all connections.
    /// @throws int 1001 for an unknown connection, 2204 when no exchange could be started.
    std::uint32_t attachRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                std::uint32_t openDuration);

    /// Creates a request and starts an exchange if none runs. As `attachRequest`, but also throws
    /// 2204 when the current connection is not allowed.
    std::uint32_t prepareRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                 std::uint32_t openDuration);

    /// Gives data to the request that the transfer asks for.
    /// @return 0, 1001 unknown connection, 41 unknown request, 57 not asked for.
    int sendData(std::string_view bytes, bool last, std::uint32_t connectionId,
                 std::uint32_t requestId);

    /// Asks for the next response chunk, which is posted when there is one.
    /// @throws int 41 for an unknown request.
    void getData(std::uint32_t connectionId, std::uint32_t requestId);

    /// Nothing happens when the request is unknown.
    void cancelRequest(std::uint32_t connectionId, std::uint32_t requestId);

    /// The current status value; a change is stored and announced.
    std::uint32_t connectionStatus();

    /// Ends a running exchange, joins its worker and forgets all requests and connections; no
    /// exchange starts any more. May take as long as the worker waits for client data. Idempotent.
    void shutdown();

    // -- when an exchange may start -----------------------------------------------------------

    /// The only place where an exchange begins.
    /// @return false when it may not begin, or no worker could be started.
    bool startExchange();
    bool hasSendableRequest();
    /// Whether `policy` allows the current connection; "no connection" is allowed for 2 and 3.
    bool connectionAllowed(std::uint32_t policy);
    /// The largest open duration asked for, or the configured default.
    std::uint32_t connectionOpenDuration() const;

    // -- INetworkOwner ------------------------------------------------------------------------

    void onConnectionStatus(std::uint32_t status, bool recheck) override;
    void onNetworkAvailable() override;
    void onConnectionLost() override;
    void requestFreshConnect() override { HttpClient::requestFreshConnect(); }

    // -- IExchangeOwner -----------------------------------------------------------------------

    std::string proxyForServer() override { return networkManager_.proxyFor(); }
    void postRequestData(std::uint32_t connectionId, std::uint32_t requestId) override;
    void announceConnectionStatus() override;
    void onExchangeFailed(std::uint32_t code, const std::string& errorText,
                          const std::string& keyList) override;
    void onExchangeDone(std::uint64_t number) override;

    // -- IChunkReceiver -----------------------------------------------------------------------

    void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override;

    /// Sweeps finished requests and starts the next exchange if one is wanted.
    void onExchangeFinished();

private:
    using RequestPointer = RequestRegistry::Pointer;
    using Verdict = RequestRegistry::Verdict;

    std::uint32_t createRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                std::uint32_t openDuration, bool prepared);
    std::uint32_t nextRequestId();
    void cancelLive(const RequestPointer& request);
    void sweepTravelling(const RequestRegistry::Judge& judge);
    void reportFailure(int code, const char* message, std::vector<std::string> keys);
    bool isExchangeWorthwhile();
    bool queueRequests();
    std::vector<RequestPointer> collectSendable();
    bool startWorker();
    void storeStatus(std::uint32_t status);
    void raiseOpenDuration(std::uint32_t duration);
    void collectDeviceIdentifiers();

    WorkerThread workerThread_; // main loop's thread
    std::atomic<bool> workerStarted_ = false;
    std::atomic<bool> closing_ = false;
    std::uint64_t startedExchange_ = 0; // main loop's thread; newest exchange that got a worker
    IServiceEvents& service_;
    ServicePosts posts_;

    std::uint32_t lastConnectionId_ = 0; // guarded by connectionsLock_
    std::uint32_t lastRequestId_ = 0;    // guarded by requestIdLock_
    // main loop's thread
    std::map<std::uint32_t, std::shared_ptr<const ConnectionParameters>> connections_;
    RequestRegistry requests_; // guarded by requestsLock_
    std::atomic<std::uint32_t> reportedStatus_ = 0;
    RecursiveMutex connectionsLock_; // also for erasure from connections_
    RecursiveMutex requestIdLock_;
    RecursiveMutex requestsLock_;
    std::string imsi_;
    std::string imei_;
    std::string fwId_;
    std::uint32_t openDuration_ = 0;     // main loop's thread; never lowered
    OrvexNetworkManager networkManager_; // last: it calls this object until it is gone
};

} // namespace orvexd
