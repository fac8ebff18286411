#pragma once

#include "config/MapWrapper.h"
#include "core/RequestRegistry.h"
#include "core/ServicePosts.h"
#include "http/Exchange.h"
#include "http/HttpClient.h"
#include "http/IExchangeOwner.h"
#include "network/OrvexNetworkManager.h"
#include "request/OutgoingPart.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvexd {

/// The most that one user may have.
struct UserLimits {
    std::size_t connections = 4096;
    std::size_t requests = 16384;
    std::size_t argumentBytes = std::size_t{8} * 1024 * 1024; ///< of all its connections

    /// The limit of a user: root has ten times as much as others.
    [[nodiscard]] static std::size_t of(std::size_t limit, std::uint32_t uid) noexcept {
        return uid == 0 ? 10 * limit : limit;
    }
};

/// Thrown by an operation that a limit refuses. Nothing has changed then.
struct LimitExceeded {
    static constexpr const char* kMemoryFull = "The daemon holds as much for its clients as it may";

    std::string sentence;             ///< says which limit
    std::shared_ptr<const User> user; ///< whose limit; null when the memory budget is full
    bool mayFit = true;               ///< whether it helps to give something back
};

/// The connections of clients that have left the bus.
struct DepartedConnections {
    using Ids = std::deque<std::uint32_t>; // oldest first

    Ids all;
    std::map<std::uint32_t, Ids> ofUser; // by user id
};

/// The gateway core: holds every client connection and request, decides when an exchange starts,
/// and turns the outcome of exchanges and network changes into posts to the service.
///
/// A connection and its requests belong to the user who opened it. Their ids mean nothing to other
/// users, except root.
///
/// Main loop's thread only, so there is no lock. Of its members, the worker uses the proxy look-up
/// of the network manager and the posts, which any thread may use.
class OrvexMain : public IExchangeOwner, public INetworkOwner {
public:
    /// Starts to follow the platform's connections. `service` must outlive this object; posts that
    /// have not arrived when this object ends are dropped.
    explicit OrvexMain(IServiceEvents& service, UserLimits limits = {});
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

    // -- operations of the clients; ids that mean nothing to the client are unknown ids --------

    /// Opens a client connection. The strings may hold any bytes.
    /// @param chunkSize bytes that one getData brings at the most.
    /// @return the id of the new connection; the first one is 1.
    /// @throws LimitExceeded.
    std::uint32_t openConnection(std::string_view elementName, std::string_view type,
                                 std::string_view version, std::string_view transferEncoding,
                                 std::string_view contentType, std::uint32_t chunkSize,
                                 const Client& client = {});

    /// Cancels the connection's requests and forgets the connection. Requests that are part of an
    /// exchange live, cancelled, until it ends.
    void closeConnection(std::uint32_t connectionId, const Client& client = {});

    /// Creates a request that waits until an exchange takes it along.
    /// @param openDuration without a unit; reaches a hook that does nothing.
    /// @return its id, unique over all connections.
    /// @throws int 1001 for an unknown connection, 2204 when no exchange could be started;
    ///   LimitExceeded.
    std::uint32_t attachRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                std::uint32_t openDuration, const Client& client = {});

    /// Creates a request and starts an exchange if none runs. As `attachRequest`, but also throws
    /// 2204 when the current connection is not allowed.
    std::uint32_t prepareRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                 std::uint32_t openDuration, const Client& client = {});

    /// Gives data to the request that the transfer asks for, and wakes the worker.
    /// @param last the data ends the request's part.
    /// @return 0, 1001 unknown connection, 41 unknown request, 57 not asked for.
    [[nodiscard]] int sendData(std::string_view bytes, bool last, std::uint32_t connectionId,
                               std::uint32_t requestId, const Client& client = {});

    /// Whether so much of the request's data waits for the transfer that its client should send no
    /// more for now. If so, the service hears when that has ended.
    [[nodiscard]] bool isUploadCrowded(std::uint32_t connectionId, std::uint32_t requestId) const;

    /// Asks for the next response chunk, which is posted when there is one.
    /// @throws int 41 for an unknown request.
    void getData(std::uint32_t connectionId, std::uint32_t requestId, const Client& client = {});

    /// Cancels a request: at once while it waits, otherwise at the end of its exchange. Nothing
    /// happens when the request is unknown.
    void cancelRequest(std::uint32_t connectionId, std::uint32_t requestId,
                       const Client& client = {});

    /// The current status value; a change is stored and announced.
    std::uint32_t connectionStatus();

    /// Ends a running exchange, joins its worker and forgets all requests and connections; no
    /// exchange starts any more. May take as long as the worker waits for client data. Idempotent.
    void shutdown();

    // -- clients that have left the bus --------------------------------------------------------

    /// Finds the connections whose openers have left. Removes the requests that are over, too: they
    /// only waited for the next exchange.
    [[nodiscard]] DepartedConnections
    findDeparted(const std::function<bool(const std::string& name)>& isOnBus);
    /// Closes the oldest of them that counts for the refusal, and forgets its requests. One with a
    /// request in the running exchange stays.
    /// @return false when there is none left.
    [[nodiscard]] bool giveBack(DepartedConnections& departed, const LimitExceeded& refusal);
    /// Closes the oldest of them, one after the other, until the memory budget has room for data.
    void giveBackMemory(DepartedConnections& departed);
    /// The client that the service watches has left the bus: nobody waits long for its data.
    void onWatchedClientLeft();

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
    void announceConnectionStatus() override;
    void postMemoryShort() override;
    void onExchangeFailed(int code, const std::string& errorText,
                          const std::string& keyList) override;
    /// Drops finished requests and starts the next exchange if one is wanted.
    void onExchangeFinished() override;

private:
    using RequestPointer = RequestRegistry::Pointer;
    using Requests = std::vector<RequestPointer>;

    /// An open connection; it counts for its user as long as it is in the table.
    struct Connection {
        std::shared_ptr<const ConnectionParameters> parameters;
        Share<&User::connections> share;
    };

    std::uint32_t createRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                std::uint32_t openDuration, const Client& client, bool prepared);
    [[nodiscard]] const Connection* findConnection(std::uint32_t connectionId,
                                                   const Client& client) const;
    [[nodiscard]] RequestPointer findRequest(std::uint32_t connectionId, std::uint32_t requestId,
                                             const Client& client) const;
    [[nodiscard]] std::shared_ptr<User> userOf(const Client& client);
    /// @param bytes of its arguments.
    void expectRoomForConnection(const std::shared_ptr<User>& user, std::size_t bytes) const;
    void expectRoomForRequest(const std::shared_ptr<User>& user) const;
    [[nodiscard]] bool closeOldest(DepartedConnections::Ids& ids);
    [[nodiscard]] bool isInRunningExchange(const RequestData& request) const;
    void watchOpener(std::uint32_t connectionId, std::uint32_t requestId);
    void stopWatching();
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
    const UserLimits limits_;
    ServicePosts posts_;
    HttpClient client_;

    std::uint32_t lastConnectionId_ = 0;
    std::uint32_t lastRequestId_ = 0;
    std::map<std::uint32_t, std::weak_ptr<User>> users_; // by user id; lives as long as it counts
    std::map<std::uint32_t, Connection> connections_;
    RequestRegistry requests_;
    std::vector<std::uint32_t> lastExchange_; // request ids of the newest exchange, ascending
    std::optional<std::weak_ptr<RequestData>> watched_; // its opener is watched
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
