#pragma once

#include "core/RequestData.h"
#include "network/ConnectionStatus.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orvexd {

/// Every live request, found by its ids, and grouped by what the gateway core decides on: those
/// that wait for an exchange by what it takes to let them travel, those that are part of one
/// together. A decision costs as much as the requests that it concerns, however many others wait.
///
/// Groups are walked in the order of the keys' text: "10:2" comes before "2:5". Not thread-safe.
class RequestRegistry {
public:
    using Pointer = std::shared_ptr<RequestData>;

    /// Connection policies that are allowed or refused together.
    enum class Policy : std::size_t { AnyConnection, NotFlagged, KindOneOnly };
    static constexpr std::array<Policy, 3> kPolicies = {Policy::AnyConnection, Policy::NotFlagged,
                                                        Policy::KindOneOnly};
    static Policy policyOf(const RequestData& request) noexcept;
    /// One policy value of the group.
    static std::uint32_t valueOf(Policy policy) noexcept;

    /// What becomes of a request in a sweep.
    enum class Verdict { Keep, Remove };
    using Judge = std::function<Verdict(const Pointer&)>;

    /// Takes a request that waits for an exchange; one with the same ids makes room.
    void add(const Pointer& request);
    /// Null when there is none.
    Pointer find(std::uint32_t connectionId, std::uint32_t requestId) const;
    void remove(const Pointer& request);
    void clear();

    /// The request has become part of an exchange.
    void setTravelling(const Pointer& request);
    /// The exchange of the request has not begun after all.
    void setWaiting(const Pointer& request);

    bool hasWaiting(bool prepared, Policy policy) const noexcept;
    bool hasWaiting(bool prepared) const noexcept;
    std::vector<Pointer> waiting(bool prepared, Policy policy) const;
    std::vector<Pointer> ofConnection(std::uint32_t connectionId) const;

    /// Asks `judge` about every request that is or was part of an exchange.
    void sweepTravelling(const Judge& judge);

private:
    using Group = std::map<std::string, Pointer>;

    Group& waitingGroup(bool prepared, Policy policy) noexcept;
    const Group& waitingGroup(bool prepared, Policy policy) const noexcept;

    Group all_;
    std::array<std::array<Group, kPolicies.size()>, 2> waiting_; // attached, prepared
    Group travelling_;
};

} // namespace orvexd
