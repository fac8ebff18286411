#include "http/RequestBody.h"

#include "config/MapWrapper.h"
#include "http/IExchangeOwner.h"
#include "http/LineEnds.h"
#include "request/RequestData.h"
#include "support/Probes.h"

#include <algorithm>
#include <curl/curl.h>
#include <limits>
#include <utility>

namespace orvexd {

namespace {

constexpr std::size_t kReserve = 1024;
constexpr const char* kRawEncoding = "binary";
constexpr const char* kUnannouncedType = "position";

constexpr const char* kFingerprintKey = "orvexd/wait_timeout/fingerprint";
constexpr const char* kFingerprintWait = "90000"; // milliseconds, as all settings
// Not the key of an empty type, which ends in a slash.
constexpr const char* kFallbackKey = "orvexd/wait_timeout";

/// The time `wait` after `begin` on g_get_monotonic_time's clock, at most the last time of that
/// clock.
gint64 deadlineAfter(gint64 begin, std::chrono::milliseconds wait) {
    constexpr gint64 kLatest = std::numeric_limits<gint64>::max();
    constexpr gint64 kMicrosecondsPerMillisecond = 1000;
    const gint64 milliseconds = wait.count();
    if (milliseconds > (kLatest - begin) / kMicrosecondsPerMillisecond) {
        return kLatest;
    }
    return milliseconds <= 0 ? begin : begin + milliseconds * kMicrosecondsPerMillisecond;
}

} // namespace

RequestBody::RequestBody(const Queue& queue, std::string boundary, std::string bodyPrefix,
                         DataSignal& signal, IExchangeOwner& owner, const Parameters& parameters)
    : queue_(queue),
      boundary_(std::move(boundary)),
      bodyPrefix_(std::move(bodyPrefix)),
      signal_(signal),
      owner_(owner),
      parameters_(parameters) {}

std::size_t RequestBody::sliceLimit(std::size_t capacity) noexcept {
    return capacity >= 2 * kReserve ? capacity - kReserve : std::max<std::size_t>(1, capacity / 2);
}

std::size_t RequestBody::readBody(std::span<char> buffer) {
    Slice slice;
    {
        DataSignal::Reader reader(signal_);
        if (reader.isCancelRequested() || buffer.empty()) {
            return CURL_READFUNC_ABORT;
        }
        if (!carry_.empty()) {
            return takeCarry(buffer);
        }
        if (!takeSlice(reader, buffer, sliceLimit(buffer.size()), slice)) {
            return CURL_READFUNC_ABORT;
        }
    }
    if (slice.raw || slice.size == 0) {
        return slice.size;
    }
    // A slice of short lines grows to nearly twice its size, which exceeds the reserve. The slice
    // is not cut again, because a line feed at the start of a slice stays bare. The rest is sent
    // with the next call.
    return normalizeLineEnds({scratch_.data(), slice.size}, buffer, carry_);
}

/// @return false when the upload was cancelled.
bool RequestBody::takeSlice(DataSignal::Reader& reader, std::span<char> buffer, std::size_t limit,
                            Slice& slice) {
    if (bodyComplete_) {
        return true;
    }
    if (scratch_.size() < limit) {
        scratch_.resize(limit);
    }
    if (currentPart_ < 0) {
        slice = takePrefix(limit);
        return true;
    }
    while (slice.size == 0) {
        if (reader.isCancelRequested()) {
            return false;
        }
        RequestData& part = *queue_[static_cast<std::size_t>(currentPart_)];
        if (partsClosed_) {
            slice = closeBody();
            return true;
        }
        announceOnce(part);
        const int before = currentPart_;
        slice = takePart(part, buffer, limit);
        if (slice.size == 0 && currentPart_ == before && !partsClosed_) {
            awaitData(reader, part);
        }
    }
    return true;
}

RequestBody::Slice RequestBody::takePrefix(std::size_t limit) {
    const std::size_t size = std::min(limit, bodyPrefix_.size() - prefixTaken_);
    std::copy_n(bodyPrefix_.data() + prefixTaken_, size, scratch_.data());
    prefixTaken_ += size;
    if (prefixTaken_ == bodyPrefix_.size()) {
        bodyPrefix_ = std::string();
        prefixTaken_ = 0;
        advanceToNextPart();
    }
    return {size, false};
}

RequestBody::Slice RequestBody::takePart(RequestData& part, std::span<char> buffer,
                                         std::size_t limit) {
    const bool raw = part.parameters().transferEncoding == kRawEncoding;
    const std::span<char> room = raw ? buffer : std::span<char>(scratch_);
    const OutgoingPart::Piece taken = part.takeRequestData(room.first(limit));
    if (taken.hasRoom) {
        owner_.postUploadRoom(part.connectionId(), part.requestId());
    }
    if (taken.finished) {
        advanceToNextPart();
    }
    return {taken.bytes, raw};
}

RequestBody::Slice RequestBody::closeBody() {
    const std::string delimiter = "\r\n--" + boundary_ + "--\r\n";
    scratch_.assign(delimiter.begin(), delimiter.end());
    bodyComplete_ = true;
    return {delimiter.size(), false};
}

void RequestBody::advanceToNextPart() {
    const auto count = static_cast<int>(queue_.size());
    if (currentPart_ >= 0 && currentPart_ < count) {
        RequestData& sent = *queue_[static_cast<std::size_t>(currentPart_)];
        sent.setAcceptingData(false);
        sent.raiseState(RequestState::Sent);
    }
    if (currentPart_ + 1 >= count) {
        // A flag of its own: an early response changes the last request's state.
        partsClosed_ = true;
        return;
    }
    ++currentPart_;
    RequestData& next = *queue_[static_cast<std::size_t>(currentPart_)];
    next.writePartHeader(boundary_); // before data is accepted: the header goes first
    next.raiseState(RequestState::Sending);
    next.setAcceptingData(true);
    owner_.postRequestData(next.connectionId(), next.requestId());
}

void RequestBody::announceOnce(const RequestData& part) {
    if (part.parameters().type != kUnannouncedType && !part.dataTransferStarted()) {
        owner_.announceConnectionStatus();
    }
}

void RequestBody::awaitData(DataSignal::Reader& reader, RequestData& part) {
    const std::chrono::milliseconds wait = waitTimeout(part.parameters().type, parameters_);
    const gint64 begin = g_get_monotonic_time();
    const gint64 end = deadlineAfter(begin, wait);
    const auto deadline = [&] {
        const gint64 left = part.openerLeft();
        return left == 0 ? end : std::min(end, deadlineAfter(std::max(begin, left), kDefaultWait));
    };
    probe::dataWaitBegin(part.connectionId(), part.requestId(), static_cast<long>(wait.count()));
    const bool arrived = reader.waitForData(deadline);
    probe::dataWaitEnd(part.connectionId(), part.requestId(), arrived);
    if (!arrived) {
        part.appendRequestData({}, true); // the part ends with what it has
    }
}

std::chrono::milliseconds RequestBody::waitTimeout(const std::string& type,
                                                   const Parameters& parameters) {
    const std::string key = "orvexd/wait_timeout/" + type;
    std::string value = parameters.get(key);
    if (value.empty() && key == kFingerprintKey) {
        value = kFingerprintWait;
    }
    if (value.empty()) {
        return kDefaultWait;
    }
    const Number wait = readNumber(value);
    const std::string fallback = wait.fits ? std::string() : parameters.get(kFallbackKey);
    if (fallback.empty()) {
        return std::chrono::milliseconds(wait.value);
    }
    const Number instead = readNumber(fallback);
    return instead.fits ? std::chrono::milliseconds(instead.value) : kDefaultWait;
}

std::size_t RequestBody::takeCarry(std::span<char> buffer) noexcept {
    const std::size_t size = std::min(buffer.size(), carry_.size() - carryTaken_);
    std::copy_n(carry_.data() + carryTaken_, size, buffer.data());
    carryTaken_ += size;
    if (carryTaken_ == carry_.size()) {
        carry_.clear();
        carryTaken_ = 0;
    }
    return size;
}

} // namespace orvexd
