// When an exchange starts, what its end means for the requests, and what the network and clients
// that leave have to do with it.

#include "core/OrvexMain.h"
#include "http/RequestBody.h"
#include "protocol/Codes.h"
#include "request/RequestData.h"
#include "support/MemoryBudget.h"
#include "support/Probes.h"

#include <algorithm>
#include <glib.h>
#include <utility>

namespace orvexd {

bool OrvexMain::isTransferRunning() const noexcept {
    return exchange_ && exchange_->isTransferRunning();
}

bool OrvexMain::hasSendableRequest() {
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
    if (isExchangeWorthwhile()) {
        postFinished(requests_.removeInExchange(
            [](const RequestData& request) { return request.state() == RequestState::Delivered; }));
        Requests sendable = collectSendable();
        // In the 50 ms after a success the requests of that exchange still have to be dropped.
        const bool isFree = !exchange_ || exchange_->hasFailed();
        if (isFree && !sendable.empty()) {
            return startWorker(std::move(sendable));
        }
    }
    networkManager_.keepOpen(connectionOpenDuration());
    return true;
}

/// A flagged connection is used only when somebody asks for it: a prepared request, or one that
/// accepts any connection.
bool OrvexMain::isExchangeWorthwhile() {
    const bool wanted = requests_.hasWaiting(true) ||
                        requests_.hasWaiting(false, RequestRegistry::Policy::AnyConnection);
    return wanted || !networkManager_.hasFlaggedConnection();
}

/// The waiting requests that may use the connection. Prepared requests that may not use it are
/// dropped and reported; attached ones go on waiting.
OrvexMain::Requests OrvexMain::collectSendable() {
    Requests sendable;
    Requests notAllowed;
    for (const bool prepared : {true, false}) {
        for (const auto policy : RequestRegistry::kPolicies) {
            if (!requests_.hasWaiting(prepared, policy)) {
                continue;
            }
            const bool allowed = connectionAllowed(RequestRegistry::valueOf(policy));
            if (allowed || prepared) {
                const Requests group = requests_.waiting(prepared, policy);
                Requests& destination = allowed ? sendable : notAllowed;
                destination.insert(destination.end(), group.begin(), group.end());
            }
        }
    }
    for (const RequestPointer& request : notAllowed) {
        requests_.remove(request);
    }
    reportFailure("Current network connection not allowed", notAllowed);
    postFinished(notAllowed); // after the error: nothing answers their held calls any more
    return sendable;
}

/// The end of the requests that one message carries. What clients gave for their requests' elements
/// is copied into the message's first part, whose size this limits.
OrvexMain::Requests::const_iterator OrvexMain::endOfMessage(const Requests& queue) {
    constexpr std::size_t kMostText = std::size_t{8} * 1024 * 1024;
    std::size_t text = 0;
    auto end = queue.begin();
    do { // a single request always has room
        const ConnectionParameters& parameters = (*end)->parameters();
        text += parameters.elementName.size() + parameters.type.size() + parameters.version.size();
        ++end;
    } while (end != queue.end() && text < kMostText);
    return end;
}

bool OrvexMain::startWorker(Requests queue) {
    // In transfer order, so that each one goes to the queue's end.
    std::sort(queue.begin(), queue.end(),
              [](const auto& left, const auto& right) { return left->goesBefore(*right); });
    queue.erase(endOfMessage(queue), queue.end()); // the others wait for the next exchange
    auto exchange = std::make_unique<Exchange>(client_, *this);
    lastExchange_.clear();
    for (const RequestPointer& request : queue) {
        exchange->addPart(request);
        requests_.setInExchange(request);
        lastExchange_.push_back(request->requestId());
    }
    std::sort(lastExchange_.begin(), lastExchange_.end());
    if (exchange_) {
        exchange_->join(); // it has failed; there is never more than one worker
    }
    if (exchange->start()) {
        exchange_ = std::move(exchange);
        return true;
    }
    for (const RequestPointer& request : queue) {
        requests_.setWaiting(request);
    }
    return false; // if an exchange has just failed, its end tries again in 50 ms
}

void OrvexMain::onExchangeFinished() {
    stopWatching();
    exchange_.reset();
    postFinished(requests_.removeInExchange([](const RequestData& request) {
        return request.state() == RequestState::Delivered || request.isCancelled();
    }));
    if (hasSendableRequest()) {
        (void)startExchange(); // the requests go on waiting when it does not start
    } else {
        networkManager_.keepOpen(connectionOpenDuration());
    }
}

/// Clients hear why in the same turn of the main loop in which their requests become unknown.
void OrvexMain::onExchangeFailed(int code, const std::string& errorText,
                                 const std::string& keyList) {
    stopWatching();
    const Requests dropped = requests_.removeInExchange([](const RequestData&) { return true; });
    const int reported =
        code == failure::kTransport ? failure::kNoConnection : failure::kExchangeFailed;
    service_.emitErrorSignal(static_cast<std::uint32_t>(reported), errorText, keyList);
    for (const RequestPointer& request : dropped) {
        service_.dropPending(request->connectionId(), request->requestId());
    }
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
    probe::networkStatus(reportedStatus_, status);
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

// -- clients that have left the bus --------------------------------------------------------------

DepartedConnections
OrvexMain::findDeparted(const std::function<bool(const std::string& name)>& isOnBus) {
    postFinished(requests_.removeInExchange([this](const RequestData& request) {
        const bool isOver = request.state() == RequestState::Delivered || request.isCancelled();
        return isOver && !isInRunningExchange(request);
    }));
    DepartedConnections departed;
    for (const auto& [id, connection] : connections_) { // ids ascend
        const Opener& opener = *connection.parameters->opener;
        if (!isOnBus(opener.name)) {
            departed.all.push_back(id);
            departed.ofUser[opener.user->uid].push_back(id);
        }
    }
    return departed;
}

bool OrvexMain::giveBack(DepartedConnections& departed, const LimitExceeded& refusal) {
    return closeOldest(refusal.user ? departed.ofUser[refusal.user->uid] : departed.all);
}

void OrvexMain::giveBackMemory(DepartedConnections& departed) {
    while (!MemoryBudget::process().hasRoomForData() && closeOldest(departed.all)) {
        // the next oldest
    }
}

bool OrvexMain::closeOldest(DepartedConnections::Ids& ids) {
    while (!ids.empty()) {
        const std::uint32_t id = ids.front();
        ids.pop_front();
        const Requests requests = requests_.ofConnection(id);
        const bool isBusy =
            std::any_of(requests.begin(), requests.end(),
                        [this](const auto& request) { return isInRunningExchange(*request); });
        if (isBusy || connections_.erase(id) == 0) {
            continue;
        }
        for (const RequestPointer& request : requests) {
            request->setCancelled(true);
            requests_.remove(request);
        }
        postFinished(requests);
        return true;
    }
    return false;
}

bool OrvexMain::isInRunningExchange(const RequestData& request) const {
    return isTransferRunning() &&
           std::binary_search(lastExchange_.begin(), lastExchange_.end(), request.requestId());
}

/// The request's data has just been asked for. Nobody waits long for a client that has left; where
/// the wait is short anyway, nobody has to know.
void OrvexMain::watchOpener(std::uint32_t connectionId, std::uint32_t requestId) {
    stopWatching();
    const RequestPointer request = requests_.find(connectionId, requestId);
    if (!request || !request->parameters().opener) {
        return;
    }
    const ConnectionParameters& parameters = request->parameters();
    if (RequestBody::waitTimeout(parameters.type, HttpClient::getConfiguration()) >
        RequestBody::kDefaultWait) {
        watched_ = request;
        service_.watchClient(parameters.opener->name);
    }
}

void OrvexMain::stopWatching() {
    if (watched_) {
        watched_.reset();
        service_.watchClient({});
    }
}

void OrvexMain::onWatchedClientLeft() {
    const RequestPointer request = watched_ ? watched_->lock() : nullptr;
    if (request) {
        request->setOpenerLeft(g_get_monotonic_time());
    }
    if (exchange_) {
        exchange_->notifyDeadline();
    }
}

// -- posts of the worker -------------------------------------------------------------------------

void OrvexMain::postRequestData(std::uint32_t connectionId, std::uint32_t requestId) {
    posts_.postRequestData(connectionId, requestId);
    posts_.post([=, this](IServiceEvents& /*service*/) { watchOpener(connectionId, requestId); });
}

void OrvexMain::postMemoryShort() {
    posts_.post([](IServiceEvents& service) { service.onMemoryShort(); });
}

void OrvexMain::postUploadRoom(std::uint32_t connectionId, std::uint32_t requestId) {
    posts_.postUploadRoom(connectionId, requestId);
}

void OrvexMain::announceConnectionStatus() {
    posts_.post(
        [this](IServiceEvents& service) { service.emitConnectionStatusChanged(reportedStatus_); });
}

} // namespace orvexd
