// When an exchange starts, and what its end means for the requests.

#include "core/OrvexMain.h"
#include "protocol/Codes.h"
#include "protocol/States.h"
#include "request/RequestData.h"

#include <algorithm>
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
    for (const RequestPointer& request : queue) {
        exchange->addPart(request);
        requests_.setInExchange(request);
    }
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
    const Requests dropped = requests_.removeInExchange([](const RequestData&) { return true; });
    const int reported =
        code == failure::kTransport ? failure::kNoConnection : failure::kExchangeFailed;
    service_.emitErrorSignal(static_cast<std::uint32_t>(reported), errorText, keyList);
    for (const RequestPointer& request : dropped) {
        service_.dropPending(request->connectionId(), request->requestId());
    }
}

// -- posts of the worker -------------------------------------------------------------------------

void OrvexMain::postRequestData(std::uint32_t connectionId, std::uint32_t requestId) {
    posts_.postRequestData(connectionId, requestId);
}

void OrvexMain::postUploadRoom(std::uint32_t connectionId, std::uint32_t requestId) {
    posts_.postUploadRoom(connectionId, requestId);
}

void OrvexMain::postMemoryShort() {}

void OrvexMain::announceConnectionStatus() {
    posts_.post(
        [this](IServiceEvents& service) { service.emitConnectionStatusChanged(reportedStatus_); });
}

} // namespace orvexd
