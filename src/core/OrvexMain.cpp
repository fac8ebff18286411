#include "core/OrvexMain.h"

#include "config/ConfHandler.h"
#include "config/MapWrapper.h"
#include "protocol/Codes.h"
#include "protocol/States.h"
#include "request/RequestData.h"

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

/// The next id of a counter. The counter skips 0, which is no id, when it wraps.
std::uint32_t nextId(std::uint32_t& counter) noexcept {
    counter = counter + 1 == 0 ? 1 : counter + 1;
    return counter;
}

} // namespace

OrvexMain::OrvexMain(IServiceEvents& service)
    : service_(service), posts_(service), client_(*this), networkManager_(*this) {
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
    const std::uint32_t connectionId = nextId(lastConnectionId_);
    connections_.insert_or_assign(connectionId, std::move(parameters));
    if (imsi_.empty() || imei_.empty()) {
        collectDeviceIdentifiers();
    }
    return connectionId;
}

void OrvexMain::closeConnection(std::uint32_t connectionId) {
    for (const RequestPointer& request : requests_.ofConnection(connectionId)) {
        cancelLive(request);
    }
    connections_.erase(connectionId);
}

void OrvexMain::cancelRequest(std::uint32_t connectionId, std::uint32_t requestId) {
    if (const RequestPointer request = requests_.find(connectionId, requestId)) {
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
    const std::uint32_t requestId = nextId(lastRequestId_);
    requests_.add(std::make_shared<RequestData>(connectionId, requestId, prepared,
                                                connection->second, connectionPolicy, &posts_));
    raiseOpenDuration(openDuration);
    const bool wantsExchange = prepared || (reportedStatus_ & StatusKindOne) != 0;
    if (wantsExchange && !isTransferRunning() && !startExchange()) {
        throw failure::kNoConnection;
    }
    return requestId;
}

int OrvexMain::sendData(std::string_view bytes, bool last, std::uint32_t connectionId,
                        std::uint32_t requestId) {
    if (!connections_.contains(connectionId)) {
        return failure::kUnknownConnection;
    }
    const RequestPointer request = requests_.find(connectionId, requestId);
    if (!request) {
        return failure::kUnknownRequest;
    }
    if (!request->appendIfAccepting(bytes, last)) {
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

void OrvexMain::getData(std::uint32_t connectionId, std::uint32_t requestId) {
    const RequestPointer request = requests_.find(connectionId, requestId);
    if (!request) {
        throw failure::kUnknownRequest;
    }
    request->requestNextChunk();
}

void OrvexMain::shutdown() {
    closing_ = true;
    if (exchange_) {
        exchange_->cancelTransfer();
        exchange_.reset();
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
    Requests failed;
    for (const RequestPointer& request : requests_.inExchange()) {
        if (!request->isCancelled() && !request->isWaitingForGetData()) {
            request->setCancelled(true);
            failed.push_back(request);
        }
    }
    for (const auto policy : RequestRegistry::kPolicies) {
        for (const RequestPointer& request : requests_.waiting(true, policy)) {
            requests_.remove(request);
            postFinished({request});
            failed.push_back(request);
        }
    }
    reportFailure("Connection error", failed);
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
