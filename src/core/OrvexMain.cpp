#include "core/OrvexMain.h"

#include "config/ConfHandler.h"
#include "config/MapWrapper.h"
#include "protocol/Codes.h"
#include "request/RequestData.h"
#include "support/MemoryBudget.h"
#include "support/Probes.h"

#include <algorithm>
#include <trilba/core/SystemInfo.h>
#include <utility>

namespace orvexd {

using trilba::core::SystemInfo;

namespace {

constexpr const char* kDefaultOpenDuration = "network/default_connection_open_duration";
constexpr const char* kMaxOpenDuration = "network/max_connection_open_duration";

std::uint32_t durationParameter(const char* key, const char* fallback) {
    return static_cast<std::uint32_t>(
        readNumber(OrvexMain::getConfiguration().get(key, fallback)).value);
}

/// Memory that a connection takes besides its arguments.
constexpr std::size_t kConnectionCost = 512;

void expectMemory() {
    if (!MemoryBudget::process().hasRoom()) {
        throw LimitExceeded{LimitExceeded::kMemoryFull, nullptr};
    }
}

/// The next id of a counter. The counter skips 0, which is no id, when it wraps.
std::uint32_t nextId(std::uint32_t& counter) noexcept {
    counter = counter + 1 == 0 ? 1 : counter + 1;
    return counter;
}

} // namespace

OrvexMain::OrvexMain(IServiceEvents& service, UserLimits limits)
    : service_(service), limits_(limits), posts_(service), client_(*this), networkManager_(*this) {
    for (const char* key : {kDefaultOpenDuration, kMaxOpenDuration}) {
        setParameterIfSet(key, ConfHandler::get(key));
    }
    networkManager_.start();
    collectDeviceIdentifiers();
}

OrvexMain::~OrvexMain() {
    shutdown();
}

Parameters& OrvexMain::getConfiguration() {
    static Parameters parameters;
    return parameters;
}

void OrvexMain::setParameter(const std::string& key, const std::string& value) {
    getConfiguration().set(key, value);
}

void OrvexMain::setParameterIfSet(const std::string& key, const std::string& value) {
    if (!value.empty()) {
        setParameter(key, value);
    }
}

void OrvexMain::collectDeviceIdentifiers() {
    imsi_.clear();
    imei_.clear();
    fwId_.clear();
    SystemInfo::getImsi(imsi_);
    SystemInfo::getImei(imei_);
    SystemInfo::getMMF(fwId_);
    HttpClient::setParameter("imsi", imsi_);
    HttpClient::setParameter("imei", imei_);
    HttpClient::setParameter("fwId", fwId_);
}

// -- operations of the clients -------------------------------------------------------------------

std::uint32_t OrvexMain::openConnection(std::string_view elementName, std::string_view type,
                                        std::string_view version, std::string_view transferEncoding,
                                        std::string_view contentType, std::uint32_t chunkSize,
                                        const Client& client) {
    const std::shared_ptr<User> user = userOf(client);
    const std::size_t bytes = elementName.size() + type.size() + version.size() +
                              transferEncoding.size() + contentType.size();
    expectRoomForConnection(user, bytes);
    ConnectionParameters given{std::string(elementName), std::string(type),
                               std::string(version),     std::string(transferEncoding),
                               std::string(contentType), chunkSize};
    given.opener = std::make_shared<const Opener>(
        Opener{user, client.name, {user, bytes, kConnectionCost + bytes}});
    const std::uint32_t connectionId = nextId(lastConnectionId_);
    connections_.erase(connectionId); // the counter of the ids has wrapped if there is one
    connections_.emplace(
        connectionId,
        Connection{std::make_shared<const ConnectionParameters>(std::move(given)), {user, 1, 0}});
    if (imsi_.empty() || imei_.empty()) {
        collectDeviceIdentifiers();
    }
    return connectionId;
}

void OrvexMain::closeConnection(std::uint32_t connectionId, const Client& client) {
    const bool isSomebodyElses =
        connections_.contains(connectionId) && findConnection(connectionId, client) == nullptr;
    if (isSomebodyElses) {
        return; // whatever requests it has, they belong to the same user
    }
    for (const RequestPointer& request : requests_.ofConnection(connectionId)) {
        if (request->parameters().isKnownTo(client)) {
            cancelLive(request);
        }
    }
    connections_.erase(connectionId);
}

void OrvexMain::cancelRequest(std::uint32_t connectionId, std::uint32_t requestId,
                              const Client& client) {
    if (const RequestPointer request = findRequest(connectionId, requestId, client)) {
        cancelLive(request);
    }
}

/// Cancels a request. A request that waits for an exchange goes at once. A request that is part of
/// an exchange goes when the exchange ends.
void OrvexMain::cancelLive(const RequestPointer& request) {
    request->setCancelled(true);
    if (request->state() == RequestState::Created) {
        requests_.remove(request);
        postFinished({request});
    }
}

std::uint32_t OrvexMain::attachRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                       std::uint32_t openDuration, const Client& client) {
    return createRequest(connectionId, connectionPolicy, openDuration, client, false);
}

std::uint32_t OrvexMain::prepareRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                        std::uint32_t openDuration, const Client& client) {
    return createRequest(connectionId, connectionPolicy, openDuration, client, true);
}

std::uint32_t OrvexMain::createRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                       std::uint32_t openDuration, const Client& client,
                                       bool prepared) {
    const Connection* const connection = findConnection(connectionId, client);
    if (connection == nullptr) {
        throw failure::kUnknownConnection;
    }
    if (prepared && !connectionAllowed(connectionPolicy)) {
        throw failure::kNoConnection;
    }
    expectRoomForRequest(connection->parameters->user());
    const std::uint32_t requestId = nextId(lastRequestId_);
    requests_.add(std::make_shared<RequestData>(connectionId, requestId, prepared,
                                                connection->parameters, connectionPolicy, &posts_));
    probe::requestNew(connectionId, requestId, prepared, connectionPolicy, client.uid,
                      client.name.c_str());
    raiseOpenDuration(openDuration);
    const bool wantsExchange = prepared || (reportedStatus_ & StatusKindOne) != 0;
    if (wantsExchange && !isTransferRunning() && !startExchange()) {
        throw failure::kNoConnection;
    }
    return requestId;
}

int OrvexMain::sendData(std::string_view bytes, bool last, std::uint32_t connectionId,
                        std::uint32_t requestId, const Client& client) {
    if (findConnection(connectionId, client) == nullptr) {
        return failure::kUnknownConnection;
    }
    const RequestPointer request = requests_.find(connectionId, requestId);
    if (!request) {
        return failure::kUnknownRequest;
    }
    if (!request->appendIfAccepting(bytes, last)) {
        if (!MemoryBudget::process().hasRoomForData()) {
            service_.onMemoryShort(); // the client may try again
        }
        return failure::kNotAccepting;
    }
    if (exchange_) {
        exchange_->notifyData();
    }
    return failure::kNone;
}

bool OrvexMain::isUploadCrowded(std::uint32_t connectionId, std::uint32_t requestId) const {
    const RequestPointer request = requests_.find(connectionId, requestId);
    return request && request->isCrowded();
}

void OrvexMain::getData(std::uint32_t connectionId, std::uint32_t requestId, const Client& client) {
    const RequestPointer request = findRequest(connectionId, requestId, client);
    if (!request) {
        throw failure::kUnknownRequest;
    }
    request->requestNextChunk();
}

void OrvexMain::shutdown() {
    closing_ = true;
    if (exchange_) {
        for (const RequestPointer& request : requests_.inExchange()) {
            request->setCancelled(true); // the worker waits no more until one of them is fetched
        }
        exchange_->cancelTransfer();
        exchange_.reset();
    }
    stopWatching();
    requests_.clear();
    connections_.clear();
}

// -- whose things are whose, and how many --------------------------------------------------------

const OrvexMain::Connection* OrvexMain::findConnection(std::uint32_t connectionId,
                                                       const Client& client) const {
    const auto position = connections_.find(connectionId);
    const bool isKnown =
        position != connections_.end() && position->second.parameters->isKnownTo(client);
    return isKnown ? &position->second : nullptr;
}

/// A request whose connection is closed already still belongs to the user who opened it.
OrvexMain::RequestPointer OrvexMain::findRequest(std::uint32_t connectionId,
                                                 std::uint32_t requestId,
                                                 const Client& client) const {
    RequestPointer request = requests_.find(connectionId, requestId);
    return request && request->parameters().isKnownTo(client) ? request : nullptr;
}

/// The record in which the client's user counts.
std::shared_ptr<User> OrvexMain::userOf(const Client& client) {
    std::shared_ptr<User> user = users_[client.uid].lock();
    if (!user) {
        std::erase_if(users_, [](const auto& entry) { return entry.second.expired(); });
        user = std::make_shared<User>(User{client.uid});
        users_[client.uid] = user;
    }
    return user;
}

void OrvexMain::expectRoomForConnection(const std::shared_ptr<User>& user,
                                        std::size_t bytes) const {
    const std::string who = "User " + std::to_string(user->uid);
    if (user->connections >= UserLimits::of(limits_.connections, user->uid)) {
        throw LimitExceeded{who + " has " + std::to_string(user->connections) +
                                " connections, the most that are allowed",
                            user};
    }
    const std::size_t most = UserLimits::of(limits_.argumentBytes, user->uid);
    if (bytes > most - std::min(most, user->argumentBytes)) {
        throw LimitExceeded{who + " has connections with " + std::to_string(user->argumentBytes) +
                                " bytes of arguments, and " + std::to_string(bytes) +
                                " more are beyond the limit",
                            user, bytes <= most};
    }
    expectMemory();
}

void OrvexMain::expectRoomForRequest(const std::shared_ptr<User>& user) const {
    if (user->requests >= UserLimits::of(limits_.requests, user->uid)) {
        throw LimitExceeded{"User " + std::to_string(user->uid) + " has " +
                                std::to_string(user->requests) +
                                " requests, the most that are allowed",
                            user};
    }
    expectMemory();
}

// -- reports to the clients ----------------------------------------------------------------------

void OrvexMain::postFinished(const Requests& requests) {
    for (const RequestPointer& request : requests) {
        posts_.postRequestFinished(request->connectionId(), request->requestId());
    }
}

/// Names the requests in the order of their keys' text: "10:2" comes before "2:5".
void OrvexMain::reportFailure(const char* message, const Requests& failed) {
    if (failed.empty()) {
        return;
    }
    std::vector<std::string> keys;
    keys.reserve(failed.size());
    for (const RequestPointer& request : failed) {
        keys.push_back(request->key());
    }
    std::sort(keys.begin(), keys.end());
    std::string list;
    for (const std::string& key : keys) {
        appendKey(list, key);
    }
    posts_.postError(failure::kNoConnection, message, std::move(list));
}

// -- open duration -------------------------------------------------------------------------------

std::uint32_t OrvexMain::connectionOpenDuration() const {
    return openDuration_ != 0 ? openDuration_ : durationParameter(kDefaultOpenDuration, "10");
}

void OrvexMain::raiseOpenDuration(std::uint32_t duration) {
    if (duration > openDuration_ && duration < durationParameter(kMaxOpenDuration, "60")) {
        openDuration_ = duration;
    }
}

} // namespace orvexd
