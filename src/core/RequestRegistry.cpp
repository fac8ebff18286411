#include "core/RequestRegistry.h"

#include "protocol/Codes.h"
#include "request/RequestData.h"

#include <algorithm>

namespace orvexd {

namespace {

std::vector<RequestRegistry::Pointer> valuesOf(const auto& group) {
    std::vector<RequestRegistry::Pointer> requests;
    requests.reserve(group.size());
    for (const auto& [id, request] : group) {
        requests.push_back(request);
    }
    return requests;
}

} // namespace

RequestRegistry::Ids RequestRegistry::idsOf(const RequestData& request) noexcept {
    return {request.connectionId(), request.requestId()};
}

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
        return KindOneOnly;
    }
}

const RequestRegistry::Group& RequestRegistry::waitingGroup(bool prepared,
                                                            Policy policy) const noexcept {
    return waiting_[prepared ? 1 : 0][static_cast<std::size_t>(policy)];
}

RequestRegistry::Group& RequestRegistry::waitingGroupOf(const RequestData& request) noexcept {
    return waiting_[request.isPrepared() ? 1 : 0][static_cast<std::size_t>(policyOf(request))];
}

void RequestRegistry::add(const Pointer& request) {
    if (const Pointer before = find(request->connectionId(), request->requestId())) {
        remove(before); // the counter of the ids has wrapped
    }
    all_.emplace(idsOf(*request), request);
    waitingGroupOf(*request).emplace(idsOf(*request), request);
}

RequestRegistry::Pointer RequestRegistry::find(std::uint32_t connectionId,
                                               std::uint32_t requestId) const {
    const auto position = all_.find({connectionId, requestId});
    return position == all_.end() ? nullptr : position->second;
}

void RequestRegistry::remove(const Pointer& request) {
    const Ids ids = idsOf(*request);
    inExchange_.erase(ids);
    waitingGroupOf(*request).erase(ids);
    all_.erase(ids);
}

void RequestRegistry::clear() {
    all_.clear();
    inExchange_.clear();
    waiting_ = {};
}

void RequestRegistry::setInExchange(const Pointer& request) {
    inExchange_.insert(waitingGroupOf(*request).extract(idsOf(*request)));
}

void RequestRegistry::setWaiting(const Pointer& request) {
    waitingGroupOf(*request).insert(inExchange_.extract(idsOf(*request)));
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

std::vector<RequestRegistry::Pointer> RequestRegistry::inExchange() const {
    return valuesOf(inExchange_);
}

std::vector<RequestRegistry::Pointer>
RequestRegistry::ofConnection(std::uint32_t connectionId) const {
    std::vector<Pointer> requests;
    for (auto position = all_.lower_bound({connectionId, 0});
         position != all_.end() && position->first.first == connectionId; ++position) {
        requests.push_back(position->second);
    }
    return requests;
}

std::vector<RequestRegistry::Pointer>
RequestRegistry::removeInExchange(const Predicate& predicate) {
    std::vector<Pointer> removed;
    for (auto position = inExchange_.begin(); position != inExchange_.end();) {
        if (!predicate(*position->second)) {
            ++position;
            continue;
        }
        removed.push_back(position->second);
        all_.erase(position->first);
        position = inExchange_.erase(position);
    }
    return removed;
}

} // namespace orvexd
