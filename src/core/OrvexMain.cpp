#include "core/OrvexMain.h"

#include "config/ConfHandler.h"
#include "core/RequestKey.h"
#include "network/ConnectionStatus.h"
#include "support/FailureCode.h"

#include <algorithm>
#include <cstdlib>
#include <trilba/core/SystemInfo.h>
#include <utility>
#include <vector>

namespace orvexd {

using trilba::core::SystemInfo;

namespace {

constexpr const char* kDefaultOpenDuration = "network/default_connection_open_duration";
constexpr const char* kMaxOpenDuration = "network/max_connection_open_duration";

std::uint32_t durationParameter(const char* key, const char* fallback) {
    const std::string value = OrvexMain::getConfiguration().get(key, fallback);
    return static_cast<std::uint32_t>(std::strtoul(value.c_str(), nullptr, 10));
}

/// The next id of a counter; 0 is no id, also after the counter has wrapped.
std::uint32_t nextId(std::uint32_t& counter) noexcept {
    counter = counter + 1 == 0 ? 1 : counter + 1;
    return counter;
}

} // namespace

OrvexMain::OrvexMain(IServiceEvents& service)
    : HttpClient(static_cast<IExchangeOwner&>(*this)),
      service_(service),
      posts_(service),
      networkManager_(*this) {
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

std::uint32_t OrvexMain::openConnection(std::string elementName, std::string type,
                                        std::string version, std::string transferEncoding,
                                        std::string contentType, std::uint32_t chunkSize) {
    auto parameters = std::make_shared<const ConnectionParameters>(
        ConnectionParameters{std::move(elementName), std::move(type), std::move(version),
                             std::move(transferEncoding), std::move(contentType), chunkSize});
    std::uint32_t connectionId = 0;
    {
        const RecursiveLock guard(connectionsLock_);
        connectionId = nextId(lastConnectionId_);
    }
    connections_.insert_or_assign(connectionId, std::move(parameters));
    if (imsi_.empty() || imei_.empty()) {
        collectDeviceIdentifiers();
    }
    return connectionId;
}

void OrvexMain::closeConnection(std::uint32_t connectionId) {
    {
        const RecursiveLock guard(requestsLock_);
        for (const RequestPointer& request : requests_.ofConnection(connectionId)) {
            cancelLive(request);
        }
    }
    const RecursiveLock guard(connectionsLock_);
    connections_.erase(connectionId);
}

void OrvexMain::cancelRequest(std::uint32_t connectionId, std::uint32_t requestId) {
    const RecursiveLock guard(requestsLock_);
    if (const RequestPointer request = requests_.find(connectionId, requestId)) {
        cancelLive(request);
    }
}

/// Cancels a request. One that waits for an exchange goes at once, one that is part of an exchange
/// when that ends.
void OrvexMain::cancelLive(const RequestPointer& request) {
    request->setCancelled(true);
    if (request->state() == RequestState::Created) {
        posts_.postRequestFinished(request->connectionId(), request->requestId());
        requests_.remove(request);
    }
}

std::uint32_t OrvexMain::attachRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                       std::uint32_t openDuration) {
    return createRequest(connectionId, connectionPolicy, openDuration, false);
}

std::uint32_t OrvexMain::prepareRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                        std::uint32_t openDuration) {
    return createRequest(connectionId, connectionPolicy, openDuration, true);
}

std::uint32_t OrvexMain::createRequest(std::uint32_t connectionId, std::uint32_t connectionPolicy,
                                       std::uint32_t openDuration, bool prepared) {
    const auto connection = connections_.find(connectionId);
    if (connection == connections_.end()) {
        throw failure::kUnknownConnection;
    }
    if (prepared && !connectionAllowed(connectionPolicy)) {
        throw failure::kNoConnection;
    }
    const std::uint32_t requestId = nextRequestId();
    const auto request =
        std::make_shared<RequestData>(connectionId, requestId, prepared, connection->second);
    request->setConnectionPolicy(connectionPolicy);
    request->setOwner(this);
    {
        const RecursiveLock guard(requestsLock_);
        requests_.add(request);
        raiseOpenDuration(openDuration);
    }
    // From here on only the id is used: the start of an exchange may already drop the request.
    const bool wantsExchange = prepared || (reportedStatus_ & StatusKindOne) != 0;
    if (wantsExchange && !isTransferRunning() && !startExchange()) {
        throw failure::kNoConnection;
    }
    return requestId;
}

std::uint32_t OrvexMain::nextRequestId() {
    const RecursiveLock guard(requestIdLock_);
    return nextId(lastRequestId_);
}

int OrvexMain::sendData(std::string_view bytes, bool last, std::uint32_t connectionId,
                        std::uint32_t requestId) {
    if (!connections_.contains(connectionId)) {
        return failure::kUnknownConnection;
    }
    const RecursiveLock guard(requestsLock_);
    const auto request = requests_.find(connectionId, requestId);
    if (!request) {
        return failure::kUnknownRequest;
    }
    if (!request->appendIfAccepting(bytes, last)) {
        return failure::kNotAccepting;
    }
    notifyData(); // with the request's lock released: the data mutex comes before it
    return failure::kNone;
}

void OrvexMain::getData(std::uint32_t connectionId, std::uint32_t requestId) {
    const RecursiveLock guard(requestsLock_);
    const auto request = requests_.find(connectionId, requestId);
    if (!request) {
        throw failure::kUnknownRequest;
    }
    request->requestNextChunk();
}

void OrvexMain::shutdown() {
    closing_ = true;
    if (workerThread_.isJoinable()) {
        // Whatever the transfer's own flag says: the worker may not have taken its first step yet,
        // or may be at its last.
        cancelTransfer();
        workerThread_.join();
    }
    requests_.clear();
    connections_.clear();
}

// -- network -------------------------------------------------------------------------------------

bool OrvexMain::connectionAllowed(std::uint32_t policy) {
    const std::uint32_t status = connectionStatus();
    if (policy == AnyConnection || (status & StatusKindOne) != 0) {
        return true;
    }
    return policy == NotFlagged && (status & StatusFlagged) == 0;
}

std::uint32_t OrvexMain::connectionStatus() {
    const std::uint32_t status = networkManager_.currentStatus();
    if (status != reportedStatus_) {
        storeStatus(status);
    }
    return status;
}

void OrvexMain::storeStatus(std::uint32_t status) {
    requestFreshConnect();
    reportedStatus_ = status;
    posts_.postConnectionStatus(status);
}

void OrvexMain::onConnectionStatus(std::uint32_t status, bool recheck) {
    if (status == reportedStatus_) {
        return;
    }
    storeStatus(status);
    if (recheck && status != 0 && hasSendableRequest()) {
        (void)networkManager_.recheck();
    }
}

void OrvexMain::onNetworkAvailable() {
    requestFreshConnect();
    if (hasSendableRequest()) {
        (void)startExchange(); // the requests go on waiting when it does not start
    }
}

void OrvexMain::onConnectionLost() {
    std::vector<std::string> failed;
    const RecursiveLock guard(requestsLock_);
    sweepTravelling([&failed](const RequestPointer& request) {
        if (!request->isCancelled() && !request->isWaitingForGetData()) {
            failed.push_back(requestKey(request->connectionId(), request->requestId()));
            request->setCancelled(true);
        }
        return Verdict::Keep;
    });
    for (const auto policy : RequestRegistry::kPolicies) {
        for (const RequestPointer& request : requests_.waiting(true, policy)) {
            failed.push_back(requestKey(request->connectionId(), request->requestId()));
            posts_.postRequestFinished(request->connectionId(), request->requestId());
            requests_.remove(request);
        }
    }
    reportFailure(failure::kNoConnection, "Connection error", std::move(failed));
}

// -- exchanges -----------------------------------------------------------------------------------

void OrvexMain::sweepTravelling(const RequestRegistry::Judge& judge) {
    const RecursiveLock guard(requestsLock_);
    requests_.sweepTravelling(judge);
}

/// Names the requests in the order of their keys' text.
void OrvexMain::reportFailure(int code, const char* message, std::vector<std::string> keys) {
    if (keys.empty()) {
        return;
    }
    std::sort(keys.begin(), keys.end());
    std::string list;
    for (const std::string& key : keys) {
        appendKey(list, key);
    }
    posts_.postError(code, message, std::move(list));
}

bool OrvexMain::hasSendableRequest() {
    const RecursiveLock guard(requestsLock_);
    if ((reportedStatus_ & StatusKindOne) != 0 && requests_.hasWaiting(false)) {
        return true;
    }
    return std::any_of(RequestRegistry::kPolicies.begin(), RequestRegistry::kPolicies.end(),
                       [this](RequestRegistry::Policy policy) {
                           return requests_.hasWaiting(true, policy) &&
                                  connectionAllowed(RequestRegistry::valueOf(policy));
                       });
}

bool OrvexMain::startExchange() {
    if (closing_ || !service_.isExchangePermitted() || isTransferRunning()) {
        return false;
    }
    if (!networkManager_.hasActiveConnection()) {
        (void)networkManager_.recheck();
        return true;
    }
    networkManager_.release();
    const bool queued = isExchangeWorthwhile() && queueRequests();
    if (queued) {
        return startWorker();
    }
    networkManager_.keepOpen(connectionOpenDuration());
    return true;
}

/// A flagged connection is used only when somebody asks for it: a prepared request, or one that
/// accepts any connection.
bool OrvexMain::isExchangeWorthwhile() {
    const RecursiveLock guard(requestsLock_);
    const bool wanted = requests_.hasWaiting(true) ||
                        requests_.hasWaiting(false, RequestRegistry::Policy::AnyConnection);
    return wanted || !networkManager_.hasFlaggedConnection();
}

/// Sweeps the requests: those that may use the connection are queued, prepared ones that may not
/// are dropped and reported, delivered ones are forgotten. @return true when something was queued.
bool OrvexMain::queueRequests() {
    const RecursiveLock guard(requestsLock_);
    sweepTravelling([this](const RequestPointer& request) {
        if (request->state() != RequestState::Delivered) {
            return Verdict::Keep;
        }
        posts_.postRequestFinished(request->connectionId(), request->requestId());
        return Verdict::Remove;
    });
    std::vector<RequestPointer> sendable = collectSendable();
    if (workerStarted_ || sendable.empty()) {
        return false; // an exchange that has just ended is still to be swept up
    }
    // In transfer order, so that each one goes to the queue's end.
    std::sort(sendable.begin(), sendable.end(),
              [](const auto& left, const auto& right) { return left->goesBefore(*right); });
    for (const auto& request : sendable) {
        addPart(request);
        requests_.setTravelling(request);
    }
    return true;
}

/// The waiting requests that may use the connection; prepared ones that may not are dropped.
std::vector<OrvexMain::RequestPointer> OrvexMain::collectSendable() {
    std::vector<RequestPointer> sendable;
    std::vector<std::string> notAllowed;
    for (const bool prepared : {true, false}) {
        for (const auto policy : RequestRegistry::kPolicies) {
            if (!requests_.hasWaiting(prepared, policy)) {
                continue;
            }
            const bool allowed = connectionAllowed(RequestRegistry::valueOf(policy));
            if (!allowed && !prepared) {
                continue; // attached requests go on waiting, whatever their number
            }
            for (RequestPointer& request : requests_.waiting(prepared, policy)) {
                if (allowed) {
                    sendable.push_back(std::move(request));
                    continue;
                }
                notAllowed.push_back(requestKey(request->connectionId(), request->requestId()));
                requests_.remove(request);
            }
        }
    }
    reportFailure(failure::kNoConnection, "Current network connection not allowed",
                  std::move(notAllowed));
    return sendable;
}

bool OrvexMain::startWorker() {
    workerStarted_ = true;
    const std::uint64_t number = beginExchange();
    if (!workerThread_.start("HttpClient", &HttpClient::threadFunc,
                             static_cast<HttpClient*>(this))) {
        const RecursiveLock guard(requestsLock_);
        for (const RequestPointer& request : abandonExchange()) {
            requests_.setWaiting(request);
        }
        workerStarted_ = false;
        return false;
    }
    startedExchange_ = number;
    return true;
}

void OrvexMain::onExchangeDone(std::uint64_t number) {
    // After a failure the next exchange may have started within the delay of this call; its
    // requests are none of the ended exchange's business.
    if (number == startedExchange_) {
        onExchangeFinished();
    }
}

void OrvexMain::onExchangeFinished() {
    workerThread_.join(); // at its end already; it may not have said so yet
    workerStarted_ = false;
    sweepTravelling([this](const RequestPointer& request) {
        if (request->state() != RequestState::Delivered && !request->isCancelled()) {
            return Verdict::Keep;
        }
        posts_.postRequestFinished(request->connectionId(), request->requestId());
        return Verdict::Remove;
    });
    if (hasSendableRequest()) {
        (void)startExchange(); // the requests go on waiting when it does not start
    } else {
        networkManager_.keepOpen(connectionOpenDuration());
    }
}

void OrvexMain::onExchangeFailed(std::uint32_t code, const std::string& errorText,
                                 const std::string& keyList) {
    workerStarted_ = false;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> dropped;
    sweepTravelling([&dropped](const RequestPointer& request) {
        dropped.emplace_back(request->connectionId(), request->requestId());
        return Verdict::Remove;
    });
    const bool transportFailed = code == static_cast<std::uint32_t>(failure::kTransport);
    posts_.postError(transportFailed ? failure::kNoConnection : failure::kExchangeFailed, errorText,
                     keyList);
    // Nothing can answer their held calls any more; behind the chunks that are still under way.
    for (const auto& [connectionId, requestId] : dropped) {
        posts_.postRequestFinished(connectionId, requestId);
    }
}

// -- posts of the worker -------------------------------------------------------------------------

void OrvexMain::postRequestData(std::uint32_t connectionId, std::uint32_t requestId) {
    posts_.postRequestData(connectionId, requestId);
}

void OrvexMain::announceConnectionStatus() {
    // The reported value as it stands: asking the network manager here would take its lock inside
    // the data mutex.
    posts_.postConnectionStatus(reportedStatus_);
}

void OrvexMain::postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                          std::string bytes) {
    posts_.postChunk(connectionId, requestId, code, std::move(bytes));
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
