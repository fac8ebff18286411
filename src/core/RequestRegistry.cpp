#include "core/RequestRegistry.h"

#include "core/RequestKey.h"

#include <algorithm>

namespace orvexd {

namespace {

std::string keyOf(const RequestData& request) {
    return requestKey(request.connectionId(), request.requestId());
}

std::vector<RequestRegistry::Pointer> valuesOf(const auto& group) {
    std::vector<RequestRegistry::Pointer> requests;
    requests.reserve(group.size());
    for (const auto& [key, request] : group) {
        requests.push_back(request);
    }
    return requests;
}

} // namespace

RequestRegistry::Policy RequestRegistry::policyOf(const RequestData& request) noexcept {
    switch (request.connectionPolicy()) {
    case AnyConnection:
        return Policy::AnyConnection;
    case NotFlagged:
        return Policy::NotFlagged;
    default:
        return Policy::KindOneOnly;
    }
}

std::uint32_t RequestRegistry::valueOf(Policy policy) noexcept {
    switch (policy) {
    case Policy::AnyConnection:
        return AnyConnection;
    case Policy::NotFlagged:
        return NotFlagged;
    default:
        return 0;
    }
}

RequestRegistry::Group& RequestRegistry::waitingGroup(bool prepared, Policy policy) noexcept {
    return waiting_[prepared ? 1 : 0][static_cast<std::size_t>(policy)];
}

const RequestRegistry::Group& RequestRegistry::waitingGroup(bool prepared,
                                                            Policy policy) const noexcept {
    return waiting_[prepared ? 1 : 0][static_cast<std::size_t>(policy)];
}

void RequestRegistry::add(const Pointer& request) {
    if (const Pointer before = find(request->connectionId(), request->requestId())) {
        remove(before); // the counter of the ids has wrapped
    }
    all_.emplace(keyOf(*request), request);
    waitingGroup(request->isPrepared(), policyOf(*request)).emplace(keyOf(*request), request);
}

RequestRegistry::Pointer RequestRegistry::find(std::uint32_t connectionId,
                                               std::uint32_t requestId) const {
    const auto position = all_.find(requestKey(connectionId, requestId));
    return position == all_.end() ? nullptr : position->second;
}

void RequestRegistry::remove(const Pointer& request) {
    const std::string key = keyOf(*request);
    travelling_.erase(key);
    waitingGroup(request->isPrepared(), policyOf(*request)).erase(key);
    all_.erase(key);
}

void RequestRegistry::clear() {
    all_.clear();
    travelling_.clear();
    waiting_ = {};
}

void RequestRegistry::setTravelling(const Pointer& request) {
    const std::string key = keyOf(*request);
    travelling_.insert(waitingGroup(request->isPrepared(), policyOf(*request)).extract(key));
}

void RequestRegistry::setWaiting(const Pointer& request) {
    const std::string key = keyOf(*request);
    waitingGroup(request->isPrepared(), policyOf(*request)).insert(travelling_.extract(key));
}

bool RequestRegistry::hasWaiting(bool prepared, Policy policy) const noexcept {
    return !waitingGroup(prepared, policy).empty();
}

bool RequestRegistry::hasWaiting(bool prepared) const noexcept {
    return std::any_of(kPolicies.begin(), kPolicies.end(),
                       [&](Policy policy) { return hasWaiting(prepared, policy); });
}

std::vector<RequestRegistry::Pointer> RequestRegistry::waiting(bool prepared, Policy policy) const {
    return valuesOf(waitingGroup(prepared, policy));
}

std::vector<RequestRegistry::Pointer>
RequestRegistry::ofConnection(std::uint32_t connectionId) const {
    const std::string prefix = std::to_string(connectionId) + ':';
    std::vector<Pointer> requests;
    for (auto position = all_.lower_bound(prefix);
         position != all_.end() && position->first.starts_with(prefix); ++position) {
        requests.push_back(position->second);
    }
    return requests;
}

void RequestRegistry::sweepTravelling(const Judge& judge) {
    for (auto position = travelling_.begin(); position != travelling_.end();) {
        const Pointer& request = position->second;
        if (judge(request) == Verdict::Keep) {
            ++position;
            continue;
        }
        all_.erase(position->first);
        position = travelling_.erase(position);
    }
}

} // namespace orvexd
