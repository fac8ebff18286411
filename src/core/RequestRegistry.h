#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace orvexd {

class RequestData;

/// Every live request, found by its ids, and grouped by what the gateway core decides on: those
/// that wait for an exchange by what it takes to let them start, those that are or were part of one
/// together. A decision costs as much as the requests that it concerns, however many others wait.
///
/// Main loop's thread.
class RequestRegistry {
public:
    using Pointer = std::shared_ptr<RequestData>;

    /// Connection policies that are allowed or refused together.
    enum class Policy : std::size_t { AnyConnection, NotFlagged, KindOneOnly };
    static constexpr std::array<Policy, 3> kPolicies = {Policy::AnyConnection, Policy::NotFlagged,
                                                        Policy::KindOneOnly};
    /// The group of a request's policy value; unknown values are as KindOneOnly.
    [[nodiscard]] static Policy policyOf(const RequestData& request) noexcept;
    /// One policy value of the group.
    [[nodiscard]] static std::uint32_t valueOf(Policy policy) noexcept;

    using Predicate = std::function<bool(const RequestData& request)>;

    /// Takes a request that waits for an exchange. A request with the same ids makes room: the
    /// counter of the ids has wrapped then.
    void add(const Pointer& request);
    /// Null when there is none.
    [[nodiscard]] Pointer find(std::uint32_t connectionId, std::uint32_t requestId) const;
    /// Forgets a request, wherever it stands. Others keep it alive as long as they hold it.
    void remove(const Pointer& request);
    /// Forgets all requests.
    void clear();

    /// The request has become part of an exchange.
    void setInExchange(const Pointer& request);
    /// The exchange of the request has not begun after all.
    void setWaiting(const Pointer& request);

    /// Whether a request of this kind waits for an exchange. Takes constant time.
    [[nodiscard]] bool hasWaiting(bool prepared, Policy policy) const noexcept;
    [[nodiscard]] bool hasWaiting(bool prepared) const noexcept;
    /// In ascending order of the connection, then of the request, as all lists.
    [[nodiscard]] std::vector<Pointer> waiting(bool prepared, Policy policy) const;
    /// Waiting or in an exchange.
    [[nodiscard]] std::vector<Pointer> ofConnection(std::uint32_t connectionId) const;
    /// The requests that are or were part of an exchange.
    [[nodiscard]] std::vector<Pointer> inExchange() const;

    /// Removes the requests that are or were part of an exchange and fulfil `predicate`.
    /// @return what was removed.
    std::vector<Pointer> removeInExchange(const Predicate& predicate);

private:
    using Ids = std::pair<std::uint32_t, std::uint32_t>; // connection, request
    using Group = std::map<Ids, Pointer>;

    [[nodiscard]] const Group& waitingGroup(bool prepared, Policy policy) const noexcept;
    [[nodiscard]] static Ids idsOf(const RequestData& request) noexcept;
    [[nodiscard]] Group& waitingGroupOf(const RequestData& request) noexcept;

    Group all_;
    std::array<std::array<Group, kPolicies.size()>, 2> waiting_; // attached, prepared
    Group inExchange_;
};

} // namespace orvexd
