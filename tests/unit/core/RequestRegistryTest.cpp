#include "core/RequestRegistry.h"

#include "protocol/Codes.h"
#include "request/RequestData.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orvexd::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Policy = RequestRegistry::Policy;
using Pointer = RequestRegistry::Pointer;

class RequestRegistryTest : public testing::Test {
protected:
    Pointer add(std::uint32_t connection, std::uint32_t id, bool prepared = true,
                std::uint32_t policy = NotFlagged) {
        auto request = std::make_shared<RequestData>(
            connection, id, prepared, std::make_shared<ConnectionParameters>(), policy);
        registry_.add(request);
        return request;
    }

    static std::vector<std::uint32_t> ids(const std::vector<Pointer>& requests) {
        std::vector<std::uint32_t> found;
        for (const Pointer& request : requests) {
            found.push_back(request->requestId());
        }
        return found;
    }

    /// Ids of what is removed when those of `chosen` are to go.
    std::vector<std::uint32_t> removeInExchange(const std::vector<std::uint32_t>& chosen) {
        return ids(registry_.removeInExchange([&](const RequestData& request) {
            return std::find(chosen.begin(), chosen.end(), request.requestId()) != chosen.end();
        }));
    }

    RequestRegistry registry_;
};

TEST_F(RequestRegistryTest, FindsARequestByItsIds) {
    const Pointer request = add(3, 17);
    EXPECT_EQ(registry_.find(3, 17), request);
    EXPECT_EQ(registry_.find(31, 7), nullptr);
    registry_.remove(request);
    EXPECT_EQ(registry_.find(3, 17), nullptr);
}

TEST_F(RequestRegistryTest, GroupsTheWaitingByPreparationAndPolicy) {
    add(1, 1, true, AnyConnection);
    add(1, 2, true, NotFlagged);
    add(1, 3, false, KindOneOnly);
    add(1, 4, false, 1);
    add(1, 5, false, 4711);
    EXPECT_THAT(ids(registry_.waiting(true, Policy::AnyConnection)), ElementsAre(1));
    EXPECT_THAT(ids(registry_.waiting(true, Policy::NotFlagged)), ElementsAre(2));
    EXPECT_THAT(ids(registry_.waiting(true, Policy::KindOneOnly)), IsEmpty());
    EXPECT_THAT(ids(registry_.waiting(false, Policy::KindOneOnly)), ElementsAre(3, 4, 5));
    EXPECT_TRUE(registry_.hasWaiting(true));
    EXPECT_FALSE(registry_.hasWaiting(false, Policy::AnyConnection));
}

TEST_F(RequestRegistryTest, NamesAValueOfEachPolicy) {
    for (const Policy policy : RequestRegistry::kPolicies) {
        const Pointer request = add(1, 1, true, RequestRegistry::valueOf(policy));
        EXPECT_EQ(RequestRegistry::policyOf(*request), policy);
    }
}

TEST_F(RequestRegistryTest, ListsInTheOrderOfConnectionAndRequest) {
    for (const Pointer& request : {add(10, 2), add(2, 5), add(1, 30), add(1, 4)}) {
        registry_.setInExchange(request);
    }
    EXPECT_THAT(ids(registry_.inExchange()), ElementsAre(4, 30, 5, 2));
}

TEST_F(RequestRegistryTest, KnowsTheRequestsOfAConnectionOnly) {
    add(1, 1);
    add(11, 2);
    add(1, 3, false);
    registry_.setInExchange(registry_.find(1, 3));
    EXPECT_THAT(ids(registry_.ofConnection(1)), ElementsAre(1, 3));
    EXPECT_THAT(ids(registry_.ofConnection(2)), IsEmpty());
}

TEST_F(RequestRegistryTest, RequestsInAnExchangeDoNotWait) {
    const Pointer request = add(1, 1);
    registry_.setInExchange(request);
    EXPECT_FALSE(registry_.hasWaiting(true));
    EXPECT_THAT(ids(registry_.inExchange()), ElementsAre(1));
    EXPECT_EQ(registry_.find(1, 1), request);
    registry_.setWaiting(request);
    EXPECT_TRUE(registry_.hasWaiting(true, Policy::NotFlagged));
    EXPECT_THAT(ids(registry_.inExchange()), IsEmpty());
}

TEST_F(RequestRegistryTest, RemovesFromTheExchangeWhatFulfilsThePredicate) {
    for (const Pointer& request : {add(1, 1), add(1, 2), add(1, 3)}) {
        registry_.setInExchange(request);
    }
    add(1, 4);
    EXPECT_THAT(removeInExchange({1, 3, 4}), ElementsAre(1, 3));
    EXPECT_EQ(registry_.find(1, 1), nullptr);
    EXPECT_NE(registry_.find(1, 4), nullptr);
    EXPECT_THAT(ids(registry_.inExchange()), ElementsAre(2));
}

TEST_F(RequestRegistryTest, ARequestWithTheSameIdsMakesRoom) {
    registry_.setInExchange(add(1, 1));
    const Pointer second = add(1, 1, false, AnyConnection);
    EXPECT_EQ(registry_.find(1, 1), second);
    EXPECT_THAT(ids(registry_.inExchange()), IsEmpty());
    EXPECT_THAT(ids(registry_.waiting(false, Policy::AnyConnection)), ElementsAre(1));
}

TEST_F(RequestRegistryTest, ClearedHoldsNothing) {
    registry_.setInExchange(add(1, 1));
    add(1, 2);
    registry_.clear();
    EXPECT_EQ(registry_.find(1, 1), nullptr);
    EXPECT_FALSE(registry_.hasWaiting(true));
    EXPECT_THAT(ids(registry_.inExchange()), IsEmpty());
}

} // namespace
} // namespace orvexd::test
