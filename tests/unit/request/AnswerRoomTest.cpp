// What an answer does when the memory budget has no room for its bytes.

#include "fakes/FakeThreads.h"
#include "request/RequestData.h"

#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace orvexd {
namespace {

using Added = Answer::Added;

constexpr std::size_t kChunk = 4096;
constexpr std::size_t kBudget = std::size_t{64} * kChunk;

class Receiver : public IChunkReceiver {
public:
    void postChunk(std::uint32_t /*connectionId*/, std::uint32_t /*requestId*/, DeliveryCode code,
                   std::string bytes) override {
        const std::lock_guard guard(mutex_);
        codes_.push_back(code);
        bytes_ += bytes;
    }

    std::string bytes() {
        const std::lock_guard guard(mutex_);
        return bytes_;
    }
    std::vector<DeliveryCode> codes() {
        const std::lock_guard guard(mutex_);
        return codes_;
    }

private:
    std::mutex mutex_;
    std::vector<DeliveryCode> codes_;
    std::string bytes_;
};

class AnswerRoom : public testing::Test {
protected:
    AnswerRoom() { request_.addExpectedPartId("part"); }

    static std::shared_ptr<const ConnectionParameters> parameters() {
        auto parameters = std::make_shared<ConnectionParameters>();
        parameters->chunkSize = kChunk;
        return parameters;
    }

    /// A wait that nobody may need.
    static Patience noPatience() { return {.deadline = 0, .memoryIsShort = {}}; }

    Added add(std::size_t bytes, bool complete = false) {
        return request_.addResponseData(std::string(bytes, 'x'), complete, noPatience());
    }

    /// Stores pieces until the answer has its share.
    std::size_t fill() {
        std::size_t stored = 0;
        while (add(kChunk) == Added::Stored) {
            stored += kChunk;
        }
        return stored;
    }

    /// What another thread does when the worker waits.
    template <typename Action> void whenTheWorkerWaits(Action action) {
        fake_threads::beforeNextWait([this, action] { other_ = std::thread(action); });
    }

    /// Adds a piece that has to wait for the other thread.
    Added addPatiently(std::size_t bytes, bool complete = false) {
        const Added added = request_.addResponseData(std::string(bytes, 'y'), complete);
        other_.join();
        return added;
    }

    MemoryBudget budget_{kBudget};
    Receiver receiver_;
    RequestData request_{3, 17, true, parameters(), NotFlagged, &receiver_, budget_};

private:
    std::thread other_;
};

TEST_F(AnswerRoom, StoresUpToThreeQuartersOfTheBudget) {
    const std::size_t stored = fill();
    EXPECT_LE(stored, budget_.accountBound());
    EXPECT_GE(stored, budget_.accountBound() - 3 * kChunk);
    EXPECT_GE(budget_.held(), budget_.accountBound());
    EXPECT_EQ(request_.answer().storedBytes(), stored);
}

TEST_F(AnswerRoom, TakesAPieceWholeWhenItHadRoomBefore) {
    EXPECT_EQ(add(2 * kBudget), Added::Stored);
    EXPECT_EQ(request_.answer().storedBytes(), 2 * kBudget);
    EXPECT_EQ(add(1), Added::NoRoom);
}

TEST_F(AnswerRoom, AnswersOfOthersUseTheBudgetUp) {
    const Charge others(budget_, kBudget - kBudget / 16);
    EXPECT_EQ(add(1), Added::NoRoom);
}

TEST_F(AnswerRoom, GivesBackWhatIsFetched) {
    const std::size_t stored = fill();
    while (receiver_.bytes().size() < stored) {
        request_.requestNextChunk();
    }
    EXPECT_LE(budget_.held(), 2 * kChunk); // a block stays for the next bytes
    EXPECT_EQ(add(kChunk), Added::Stored);
}

TEST_F(AnswerRoom, GivesEverythingBackWhenItIsDeliveredOrGone) {
    ASSERT_EQ(add(3 * kChunk, true), Added::Stored);
    for (int chunk = 0; chunk < 3; ++chunk) {
        request_.requestNextChunk();
    }
    EXPECT_EQ(request_.state(), RequestState::Delivered);
    EXPECT_EQ(budget_.held(), 0U);
    {
        RequestData other(3, 18, true, parameters(), NotFlagged, nullptr, budget_);
        other.addResponseData(std::string(kChunk, 'x'), false);
        EXPECT_GE(budget_.held(), kChunk);
    }
    EXPECT_EQ(budget_.held(), 0U);
}

TEST_F(AnswerRoom, GoesOnWhenTheClientFetches) {
    fill();
    whenTheWorkerWaits([this] {
        for (int chunk = 0; chunk < 8; ++chunk) {
            request_.requestNextChunk();
        }
    });
    EXPECT_EQ(addPatiently(kChunk), Added::Stored);
}

TEST_F(AnswerRoom, GoesOnWhenOthersGiveBack) {
    Charge others(budget_, kBudget);
    whenTheWorkerWaits([&others] { others.set(0); });
    EXPECT_EQ(addPatiently(kChunk), Added::Stored);
}

TEST_F(AnswerRoom, WaitsForNobodyWhenItIsCancelled) {
    fill();
    whenTheWorkerWaits([this] { request_.setCancelled(true); });
    EXPECT_EQ(addPatiently(kChunk), Added::Stored);
    EXPECT_EQ(budget_.held(), 0U);
    EXPECT_EQ(add(kBudget), Added::Stored);
    EXPECT_EQ(budget_.held(), 0U);
}

TEST_F(AnswerRoom, PassesChunksToAClientThatWaitsWithoutStoringThem) {
    const Charge others(budget_, kBudget);
    const std::size_t held = budget_.held();
    request_.requestNextChunk();
    EXPECT_EQ(add(3 * kChunk), Added::NoRoom); // the client has taken one chunk and no more
    EXPECT_EQ(receiver_.bytes().size(), kChunk);
    request_.requestNextChunk();
    EXPECT_EQ(add(kChunk), Added::Stored);
    EXPECT_EQ(receiver_.bytes().size(), 2 * kChunk);
    EXPECT_LE(budget_.held(), held + kChunk);
}

TEST_F(AnswerRoom, ServesAClientThatAsksWhileTheWorkerWaits) {
    const Charge others(budget_, kBudget);
    whenTheWorkerWaits([this] { request_.requestNextChunk(); });
    EXPECT_EQ(addPatiently(kChunk, true), Added::Stored);
    EXPECT_EQ(receiver_.bytes(), std::string(kChunk, 'y'));
    EXPECT_EQ(receiver_.codes(), (std::vector{DeliveryCode::ResponseComplete}));
}

TEST_F(AnswerRoom, EndsAPartWithItsLastBytesAlsoWithoutRoom) {
    const Charge others(budget_, kBudget);
    request_.requestNextChunk();
    // The line break is no data, so that the chunk takes the rest of the part.
    EXPECT_EQ(request_.addResponseData(std::string(kChunk, 'x') + "\r\n", true, noPatience()),
              Added::Stored);
    EXPECT_EQ(receiver_.bytes().size(), kChunk);
    EXPECT_EQ(receiver_.codes(), (std::vector{DeliveryCode::ResponseComplete}));
}

TEST_F(AnswerRoom, NothingNeedsNoRoom) {
    const Charge others(budget_, kBudget);
    EXPECT_EQ(add(0), Added::Stored);
    EXPECT_EQ(add(0, true), Added::Stored);
    EXPECT_EQ(request_.state(), RequestState::AllPartsReceived);
}

TEST_F(AnswerRoom, TellsOnceThatOthersUseTheMemoryUp) {
    const Charge others(budget_, kBudget);
    int told = 0;
    const Patience patience{.deadline = 0, .memoryIsShort = [&told] { ++told; }};
    EXPECT_EQ(request_.addResponseData("x", false, patience), Added::NoRoom);
    EXPECT_EQ(told, 1);
}

TEST_F(AnswerRoom, TellsNobodyWhenItsOwnShareIsUsedUp) {
    fill();
    int told = 0;
    const Patience patience{.deadline = 0, .memoryIsShort = [&told] { ++told; }};
    EXPECT_EQ(request_.addResponseData("x", false, patience), Added::NoRoom);
    EXPECT_EQ(told, 0);
}

TEST_F(AnswerRoom, HoldsAsManyPartsAsAnAccountPaysFor) {
    budget_.resize(std::size_t{1024} * 1024);
    const std::size_t most = budget_.accountBound() / Answer::kPartCost;
    for (std::size_t part = 1; part < most; ++part) {
        ASSERT_EQ(add(1, true), Added::Stored) << part;
    }
    EXPECT_EQ(add(1, true), Added::Stored);
    EXPECT_EQ(add(1, true), Added::TooMany);
}

TEST_F(AnswerRoom, PartsThatAreFetchedMayBeAnyNumber) {
    budget_.resize(std::size_t{1024} * 1024);
    for (int part = 0; part < 10'000; ++part) {
        request_.requestNextChunk();
        ASSERT_EQ(add(1, true), Added::Stored) << part;
    }
}

} // namespace
} // namespace orvexd
