#include "http/Exchange.h"

#include "http/Boundary.h"
#include "http/HttpClient.h"
#include "http/IExchangeOwner.h"
#include "http/RequestBody.h"
#include "http/TransferOptions.h"
#include "protocol/Codes.h"
#include "request/RequestData.h"
#include "slp/SlpComposer.h"
#include "slp/SlpResponseParser.h"
#include "support/Probes.h"
#include "support/XmlHandles.h"

#include <chrono>
#include <exception>
#include <utility>

namespace orvexd {

namespace {

/// The owner hears of an exchange's end this much later.
constexpr std::chrono::milliseconds kEndDelay(50);

} // namespace

Exchange::Exchange(HttpClient& client, IExchangeOwner& owner) noexcept
    : client_(client), owner_(owner) {}

Exchange::~Exchange() = default;

void Exchange::addPart(const std::shared_ptr<RequestData>& request) {
    queue_.insert(queue_.begin() + request->queuePosition(queue_), request);
    request->setState(RequestState::Queued);
}

bool Exchange::start() {
    stage_ = Stage::Running;
    if (worker_.start("HttpClient", &Exchange::threadFunc, this)) {
        return true;
    }
    stage_ = Stage::Failed;
    for (const auto& request : std::exchange(queue_, {})) {
        request->setState(RequestState::Created);
    }
    return false;
}

gpointer Exchange::threadFunc(gpointer exchange) noexcept {
    silenceXmlErrors();
    static_cast<Exchange*>(exchange)->runExchange();
    returnFreeMemory(); // the next exchange may need less than this one
    return nullptr;
}

void Exchange::runExchange() {
    probe::exchangeBegin(queue_.size());
    Outcome outcome = transferQueue();
    probe::exchangeEnd(outcome.code, outcome.errorText.data(), outcome.errorText.size());
    // Before the main loop hears of the end: from then on it holds the only references, so that
    // requests end on its thread.
    queue_.clear();
    postToMainLoop(lifetime_, [this, outcome = std::move(outcome)] { end(outcome); });
}

/// The failure of any step, exceptions included, is the outcome.
Exchange::Outcome Exchange::transferQueue() {
    Outcome outcome;
    try {
        outcome = transfer();
    } catch (const std::exception& error) { // no memory, most likely
        outcome = {failure::kExchangeFailed, error.what(), {}};
    } catch (...) { // the platform library's own
        outcome = {failure::kExchangeFailed, {}, {}};
    }
    if (outcome.code != failure::kNone) {
        outcome.keyList = unfinishedKeys();
    }
    return outcome;
}

Exchange::Outcome Exchange::transfer() {
    if (queue_.empty()) {
        return {};
    }
    const std::string boundary = generateBoundary();
    std::string bodyPrefix;
    composeSlpHeaderPart(boundary, queue_, HttpClient::getConfiguration(), bodyPrefix);
    RequestBody body(queue_, boundary, std::move(bodyPrefix), dataSignal_, owner_,
                     HttpClient::getConfiguration());
    SlpResponseParser parser(queue_);
    const int code = client_.performTransfer(TransferOptions::headerLines(boundary), body, parser);
    if (code != failure::kNone && !parser.isGivenUp()) {
        return {code, client_.errorText(), {}};
    }
    return parser.hasError() ? Outcome{parser.errorCode(), parser.errorText(), {}} : Outcome{};
}

std::string Exchange::unfinishedKeys() const {
    std::string keys;
    for (const auto& request : queue_) {
        if (request->state() != RequestState::Delivered) {
            appendKey(keys, request->key());
        }
    }
    return keys;
}

/// The outcome has reached the main loop.
void Exchange::end(const Outcome& outcome) {
    const bool failed = outcome.code != failure::kNone;
    stage_ = failed ? Stage::Failed : Stage::Succeeded;
    endTimer_.start(kEndDelay, [&owner = owner_] { owner.onExchangeFinished(); });
    if (failed) {
        owner_.onExchangeFailed(outcome.code, outcome.errorText, outcome.keyList);
    }
}

} // namespace orvexd
