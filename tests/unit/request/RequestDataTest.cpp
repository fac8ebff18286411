#include "request/RequestData.h"

#include "fakes/FailingMemory.h"
#include "fakes/FakeThreads.h"
#include "fakes/Gate.h"
#include "models/RequestModel.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace orvexd {
namespace {

using test::Chunk;
using test::RequestModel;
using Chunks = std::vector<Chunk>;

constexpr auto kContinues = DeliveryCode::PartContinues;
constexpr auto kPart = DeliveryCode::PartComplete;
constexpr auto kResponse = DeliveryCode::ResponseComplete;

/// Keeps the chunks of one request.
class Receiver : public IChunkReceiver {
public:
    void postChunk(std::uint32_t connectionId, std::uint32_t requestId, DeliveryCode code,
                   std::string bytes) override {
        EXPECT_EQ(connectionId, 3U);
        EXPECT_EQ(requestId, 17U);
        chunks_.push_back({code, std::move(bytes)});
    }

    /// What came since the last question.
    Chunks taken() { return std::exchange(chunks_, {}); }

private:
    Chunks chunks_;
};

std::shared_ptr<ConnectionParameters> makeParameters(std::uint32_t chunkSize) {
    return std::make_shared<ConnectionParameters>(
        ConnectionParameters{.elementName = "Position",
                             .type = "fingerprint",
                             .version = "1.0",
                             .transferEncoding = "binary",
                             .contentType = "application/octet-stream",
                             .chunkSize = chunkSize});
}

class RequestDataTest : public testing::Test {
protected:
    RequestDataTest() { make(100); }

    /// A new request of the connection with this chunk size.
    void make(std::uint32_t chunkSize) {
        request_ = std::make_unique<RequestData>(3, 17, true, makeParameters(chunkSize), NotFlagged,
                                                 &receiver_);
    }

    /// Announces as many parts.
    void announce(std::size_t count) {
        for (std::size_t number = 1; number <= count; ++number) {
            request_->addExpectedPartId("part" + std::to_string(number));
        }
    }

    std::string take(std::size_t maxBytes, bool finished) {
        std::string room(maxBytes, '#');
        const OutgoingPart::Piece taken = request_->takeRequestData(room);
        EXPECT_EQ(taken.finished, finished);
        return room.substr(0, taken.bytes);
    }

    /// One call of getData and what it brought.
    Chunks getData() {
        request_->requestNextChunk();
        return receiver_.taken();
    }

    Receiver receiver_;
    std::unique_ptr<RequestData> request_;
};

// -- construction and plain fields ---------------------------------------------------------------

TEST_F(RequestDataTest, KnowsWhatItWasMadeWith) {
    const RequestData attached(7, 9, false, makeParameters(5));
    EXPECT_EQ(attached.connectionId(), 7U);
    EXPECT_EQ(attached.requestId(), 9U);
    EXPECT_FALSE(attached.isPrepared());
    EXPECT_TRUE(request_->isPrepared());
    EXPECT_EQ(attached.parameters().elementName, "Position");
    EXPECT_EQ(attached.parameters().type, "fingerprint");
    EXPECT_EQ(attached.parameters().version, "1.0");
    EXPECT_EQ(attached.parameters().transferEncoding, "binary");
    EXPECT_EQ(attached.parameters().contentType, "application/octet-stream");
    EXPECT_EQ(attached.parameters().chunkSize, 5U);
    EXPECT_EQ(RequestData(7, 9, false, makeParameters(5), 3).connectionPolicy(), 3U);
}

TEST_F(RequestDataTest, FieldsOfANewRequest) {
    EXPECT_EQ(request_->connectionPolicy(), 2U);
    EXPECT_TRUE(request_->isWaitingForGetData());
    EXPECT_FALSE(request_->isCancelled());
    EXPECT_FALSE(request_->isAcceptingData());
    EXPECT_FALSE(request_->dataTransferStarted());
    EXPECT_EQ(request_->state(), RequestState::Created);
    EXPECT_EQ(request_->messageIndex(), 0U);
    EXPECT_EQ(request_->contentId(), "");
    EXPECT_EQ(request_->transferEncoding(), "");
    EXPECT_FALSE(request_->hasExpectedPartIds());
    EXPECT_FALSE(request_->hasOutstandingPartIds());
}

TEST_F(RequestDataTest, RequestsOfAConnectionShareItsParameters) {
    const auto parameters = makeParameters(5);
    const RequestData first(1, 1, true, parameters);
    const RequestData second(1, 2, true, parameters);
    EXPECT_EQ(&first.parameters(), &second.parameters());
}

TEST_F(RequestDataTest, SettersAreReadBack) {
    request_->setCancelled(true);
    EXPECT_TRUE(request_->isCancelled());
    request_->setCancelled(false);
    EXPECT_FALSE(request_->isCancelled());
    request_->setAcceptingData(true);
    EXPECT_TRUE(request_->isAcceptingData());
    request_->setAcceptingData(false);
    EXPECT_FALSE(request_->isAcceptingData());
    request_->setContentId("part1");
    EXPECT_EQ(request_->contentId(), "part1");
    request_->setMessageIndex(12);
    EXPECT_EQ(request_->messageIndex(), 12U);
}

TEST_F(RequestDataTest, EveryStateCanBeSet) {
    for (std::uint32_t value = 0; value <= 7; ++value) {
        request_->setState(static_cast<RequestState>(value));
        EXPECT_EQ(static_cast<std::uint32_t>(request_->state()), value);
    }
    request_->setState(RequestState::Created);
    EXPECT_EQ(request_->state(), RequestState::Created);
}

TEST_F(RequestDataTest, RaisingNeverLowersTheState) {
    for (std::uint32_t before = 0; before <= 7; ++before) {
        for (std::uint32_t raised = 0; raised <= 7; ++raised) {
            request_->setState(static_cast<RequestState>(before));
            request_->raiseState(static_cast<RequestState>(raised));
            EXPECT_EQ(static_cast<std::uint32_t>(request_->state()), std::max(before, raised));
        }
    }
}

// -- outgoing part -------------------------------------------------------------------------------

constexpr const char* kHeader = "\r\n--BOUNDARY\r\n"
                                "Content-Type: application/octet-stream\r\n"
                                "Content-Transfer-Encoding: binary\r\n"
                                "Content-Id: part1\r\n";

TEST_F(RequestDataTest, PartHeaderStandsInFrontOfTheFirstData) {
    request_->setContentId("part1");
    request_->writePartHeader("BOUNDARY");
    request_->appendRequestData("first", false);
    request_->appendRequestData("second", false);
    EXPECT_EQ(take(1000, false), std::string(kHeader) + "\r\nfirstsecond");
}

TEST_F(RequestDataTest, PartHeaderAloneIsNotSent) {
    request_->setContentId("part1");
    request_->writePartHeader("BOUNDARY");
    EXPECT_EQ(take(1000, false), "");
}

TEST_F(RequestDataTest, EmptyDataBringsThePartHeader) {
    request_->setContentId("part1");
    request_->writePartHeader("BOUNDARY");
    request_->appendRequestData("", true);
    EXPECT_EQ(take(1000, true), std::string(kHeader) + "\r\n");
}

TEST_F(RequestDataTest, DataWithoutPartHeaderStillGetsTheEmptyLine) {
    request_->appendRequestData("data", true);
    EXPECT_EQ(take(1000, true), "\r\ndata");
}

TEST_F(RequestDataTest, PartHeaderWrittenTwiceIsAppended) {
    request_->setContentId("part1");
    request_->writePartHeader("BOUNDARY");
    request_->writePartHeader("BOUNDARY");
    request_->appendRequestData("", true);
    EXPECT_EQ(take(1000, true), std::string(kHeader) + kHeader + "\r\n");
}

TEST_F(RequestDataTest, PartHeaderTakesTheClientsBytesAsTheyAre) {
    const auto parameters = makeParameters(1);
    parameters->contentType = "a\r\nX: \xFF";
    parameters->transferEncoding = "";
    RequestData request(1, 1, true, parameters);
    request.setContentId("c");
    request.writePartHeader("b");
    request.appendRequestData("", true);
    std::string room(1000, '#');
    room.resize(request.takeRequestData(room).bytes);
    EXPECT_EQ(room, "\r\n--b\r\nContent-Type: a\r\nX: \xFF\r\nContent-Transfer-Encoding: \r\n"
                    "Content-Id: c\r\n\r\n");
}

TEST_F(RequestDataTest, WritingThePartHeaderStoresTheTransferEncoding) {
    request_->writePartHeader("BOUNDARY");
    EXPECT_EQ(request_->transferEncoding(), "binary");
}

TEST_F(RequestDataTest, TakeOfFewerBytesThanThereAreKeepsTheRest) {
    request_->appendRequestData("abcdef", true);
    EXPECT_EQ(take(5, false), "\r\nabc");
    EXPECT_EQ(take(2, false), "de");
    EXPECT_EQ(take(1, true), "f");
}

TEST_F(RequestDataTest, TakeOfExactlyAllFinishes) {
    request_->appendRequestData("abc", true);
    EXPECT_EQ(take(5, true), "\r\nabc");
}

TEST_F(RequestDataTest, TakeWithNothingStoredIsNotFinishedBeforeTheLastData) {
    EXPECT_EQ(take(10, false), "");
    request_->appendRequestData("a", false);
    EXPECT_EQ(take(10, false), "\r\na");
    EXPECT_EQ(take(10, false), "");
    request_->appendRequestData("", true);
    EXPECT_EQ(take(10, true), "");
}

TEST_F(RequestDataTest, LaterDataTakesTheEndMarkBack) {
    request_->appendRequestData("a", true);
    request_->appendRequestData("b", false);
    EXPECT_EQ(take(100, false), "\r\nab");
    request_->appendRequestData("c", true);
    EXPECT_EQ(take(100, true), "c");
}

TEST_F(RequestDataTest, FirstTakeMarksTheTransferAsStarted) {
    request_->appendRequestData("a", true);
    EXPECT_FALSE(request_->dataTransferStarted());
    (void)take(0, false);
    EXPECT_TRUE(request_->dataTransferStarted());
}

TEST_F(RequestDataTest, DataIsRefusedUnlessTheTransferAsks) {
    EXPECT_FALSE(request_->appendIfAccepting("lost", true));
    EXPECT_EQ(take(100, false), "");
    request_->setAcceptingData(true);
    EXPECT_TRUE(request_->appendIfAccepting("a", false));
    EXPECT_TRUE(request_->appendIfAccepting("b", true));
    EXPECT_EQ(take(100, true), "\r\nab");
}

TEST_F(RequestDataTest, FinishingTakeEndsTheAcceptanceOfData) {
    request_->setAcceptingData(true);
    ASSERT_TRUE(request_->appendIfAccepting("abc", true));
    EXPECT_EQ(take(3, false), "\r\na");
    EXPECT_TRUE(request_->isAcceptingData());
    EXPECT_EQ(take(100, true), "bc");
    EXPECT_FALSE(request_->isAcceptingData());
    EXPECT_FALSE(request_->appendIfAccepting("late", true));
}

TEST_F(RequestDataTest, EveryByteValueGoesThrough) {
    std::string bytes(256, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(i);
    }
    request_->appendRequestData(bytes, true);
    EXPECT_EQ(take(1000, true), "\r\n" + bytes);
}

// -- announced parts -----------------------------------------------------------------------------

TEST_F(RequestDataTest, AnnouncedIdIsAcceptedAndLeavesTheOutstandingOnes) {
    request_->addExpectedPartId("a");
    EXPECT_TRUE(request_->hasExpectedPartIds());
    EXPECT_TRUE(request_->hasOutstandingPartIds());
    EXPECT_TRUE(request_->acceptPartId("a"));
    EXPECT_TRUE(request_->hasExpectedPartIds());
    EXPECT_FALSE(request_->hasOutstandingPartIds());
}

TEST_F(RequestDataTest, UnknownIdIsNotAcceptedAndChangesNothing) {
    request_->setExpectedPartIds({"a"});
    for (const std::string id : {"", "A", "a ", "b", "aa"}) {
        EXPECT_FALSE(request_->acceptPartId(id)) << id;
    }
    EXPECT_FALSE(request_->acceptPartId(std::string("a\0", 2)));
    EXPECT_TRUE(request_->hasOutstandingPartIds());
}

TEST_F(RequestDataTest, RepeatedIdIsAcceptedAgainAndCountsOnce) {
    request_->setExpectedPartIds({"a", "b"});
    EXPECT_TRUE(request_->acceptPartId("a"));
    EXPECT_TRUE(request_->acceptPartId("a"));
    EXPECT_TRUE(request_->hasOutstandingPartIds()) << "b is still to come";
    EXPECT_TRUE(request_->acceptPartId("b"));
    EXPECT_FALSE(request_->hasOutstandingPartIds());
}

TEST_F(RequestDataTest, IdAnnouncedTwiceIsOutstandingTwice) {
    request_->addExpectedPartId("a");
    request_->addExpectedPartId("a");
    EXPECT_TRUE(request_->acceptPartId("a"));
    EXPECT_TRUE(request_->hasOutstandingPartIds());
    EXPECT_TRUE(request_->acceptPartId("a"));
    EXPECT_FALSE(request_->hasOutstandingPartIds());
}

TEST_F(RequestDataTest, SettingTheIdsReplacesAllOfBefore) {
    request_->setExpectedPartIds({"a", "b"});
    EXPECT_TRUE(request_->acceptPartId("a"));
    request_->setExpectedPartIds({"c"});
    EXPECT_FALSE(request_->acceptPartId("a"));
    EXPECT_FALSE(request_->acceptPartId("b"));
    EXPECT_TRUE(request_->hasOutstandingPartIds());
    EXPECT_TRUE(request_->acceptPartId("c"));
    EXPECT_FALSE(request_->hasOutstandingPartIds());
}

TEST_F(RequestDataTest, SettingNoIdsLeavesNoneExpected) {
    request_->setExpectedPartIds({"a"});
    request_->setExpectedPartIds({});
    EXPECT_FALSE(request_->hasExpectedPartIds());
    EXPECT_FALSE(request_->hasOutstandingPartIds());
}

TEST_F(RequestDataTest, EmptyIdCanBeAnnounced) {
    request_->addExpectedPartId("");
    EXPECT_TRUE(request_->acceptPartId(""));
    EXPECT_FALSE(request_->hasOutstandingPartIds());
}

// -- response ------------------------------------------------------------------------------------

TEST_F(RequestDataTest, NothingIsHandedOutBeforeTheClientAsks) {
    announce(1);
    request_->addResponseData("answer", true);
    EXPECT_EQ(receiver_.taken(), Chunks{});
    EXPECT_FALSE(request_->deliverNext());
    EXPECT_EQ(getData(), (Chunks{{kResponse, "answer"}}));
}

TEST_F(RequestDataTest, WaitingClientGetsThePieceThatArrives) {
    announce(1);
    EXPECT_EQ(getData(), Chunks{});
    EXPECT_FALSE(request_->isWaitingForGetData());
    request_->addResponseData("piece", false);
    EXPECT_EQ(receiver_.taken(), (Chunks{{kContinues, "piece"}}));
    EXPECT_TRUE(request_->isWaitingForGetData());
}

TEST_F(RequestDataTest, OneChunkGoesOutForEachGetData) {
    make(2);
    announce(1);
    request_->addResponseData("abcde", true);
    EXPECT_EQ(getData(), (Chunks{{kContinues, "ab"}}));
    EXPECT_EQ(receiver_.taken(), Chunks{});
    EXPECT_EQ(getData(), (Chunks{{kContinues, "cd"}}));
    EXPECT_EQ(getData(), (Chunks{{kResponse, "e"}}));
    EXPECT_EQ(getData(), Chunks{});
}

TEST_F(RequestDataTest, StatesOfAResponseOfTwoParts) {
    announce(2);
    request_->addResponseData("a", false);
    EXPECT_EQ(request_->state(), RequestState::Receiving);
    request_->addResponseData("", true);
    EXPECT_EQ(request_->state(), RequestState::PartReceived);
    request_->addResponseData("b", false);
    EXPECT_EQ(request_->state(), RequestState::Receiving);
    request_->addResponseData("c", true);
    EXPECT_EQ(request_->state(), RequestState::AllPartsReceived);
    EXPECT_EQ(getData(), (Chunks{{kPart, "a"}}));
    EXPECT_EQ(request_->state(), RequestState::AllPartsReceived);
    EXPECT_EQ(getData(), (Chunks{{kResponse, "bc"}}));
    EXPECT_EQ(request_->state(), RequestState::Delivered);
}

TEST_F(RequestDataTest, PartThatEndsAtABufferBorderBringsNoExtraChunk) {
    make(4);
    announce(2);
    request_->addResponseData("abcd", true);
    request_->addResponseData("efgh", true);
    EXPECT_EQ(getData(), (Chunks{{kPart, "abcd"}}));
    EXPECT_EQ(getData(), (Chunks{{kResponse, "efgh"}}));
    EXPECT_EQ(request_->state(), RequestState::Delivered);
    EXPECT_EQ(getData(), Chunks{});
}

TEST_F(RequestDataTest, LastPartKnownBeforeTheOthersWereFetchedIsStillTheLast) {
    announce(3);
    for (const char* part : {"1", "2", "3"}) {
        request_->addResponseData(part, true);
    }
    EXPECT_EQ(getData(), (Chunks{{kPart, "1"}}));
    EXPECT_EQ(getData(), (Chunks{{kPart, "2"}}));
    EXPECT_EQ(getData(), (Chunks{{kResponse, "3"}}));
}

TEST_F(RequestDataTest, PartDrainedBeforeItWasCompleteEndsWithAnEmptyChunk) {
    announce(1);
    (void)getData();
    request_->addResponseData("abc", false);
    EXPECT_EQ(receiver_.taken(), (Chunks{{kContinues, "abc"}}));
    EXPECT_EQ(getData(), Chunks{}) << "still being filled: the next piece delivers";
    request_->addResponseData("", true);
    EXPECT_EQ(receiver_.taken(), (Chunks{{kResponse, ""}}));
}

TEST_F(RequestDataTest, EmptyPieceForAWaitingClientIsAnEmptyChunk) {
    announce(1);
    (void)getData();
    request_->addResponseData("", false);
    EXPECT_EQ(receiver_.taken(), (Chunks{{kContinues, ""}}));
}

TEST_F(RequestDataTest, LineBreakInFrontOfTheDelimiterIsNotData) {
    announce(1);
    request_->addResponseData("data\r\n", true);
    EXPECT_EQ(getData(), (Chunks{{kResponse, "data"}}));
}

TEST_F(RequestDataTest, OnlyOneLineBreakIsDropped) {
    announce(1);
    request_->addResponseData("data\r\n\r\n", true);
    EXPECT_EQ(getData(), (Chunks{{kResponse, "data\r\n"}}));
}

TEST_F(RequestDataTest, LoneLineFeedOrCarriageReturnStays) {
    announce(2);
    request_->addResponseData("data\n", true);
    request_->addResponseData("data\r", true);
    EXPECT_EQ(getData(), (Chunks{{kPart, "data\n"}}));
    EXPECT_EQ(getData(), (Chunks{{kResponse, "data\r"}}));
}

TEST_F(RequestDataTest, LineBreakThatArrivesInTwoPiecesIsDropped) {
    announce(1);
    request_->addResponseData("data\r", false);
    request_->addResponseData("\n", true);
    EXPECT_EQ(getData(), (Chunks{{kResponse, "data"}}));
}

TEST_F(RequestDataTest, LineBreakInsideAPartStays) {
    announce(1);
    request_->addResponseData("a\r\n", false);
    request_->addResponseData("b", true);
    EXPECT_EQ(getData(), (Chunks{{kResponse, "a\r\nb"}}));
}

TEST_F(RequestDataTest, PartOfALineBreakOnlyIsEmpty) {
    announce(1);
    request_->addResponseData("\r\n", true);
    EXPECT_EQ(getData(), (Chunks{{kResponse, ""}}));
}

TEST_F(RequestDataTest, WithoutAnnouncedPartsItIsNeverDelivered) {
    request_->addResponseData("data", true);
    EXPECT_EQ(request_->state(), RequestState::PartReceived);
    EXPECT_EQ(getData(), (Chunks{{kPart, "data"}}));
    EXPECT_EQ(request_->state(), RequestState::PartReceived);
    EXPECT_EQ(getData(), Chunks{});
    request_->addResponseData("more", true);
    EXPECT_EQ(receiver_.taken(), (Chunks{{kPart, "more"}}));
    EXPECT_EQ(request_->state(), RequestState::PartReceived);
}

TEST_F(RequestDataTest, ChunkSizeZeroGivesEmptyChunksForEver) {
    make(0);
    announce(1);
    request_->addResponseData("data", true);
    for (int call = 0; call < 10; ++call) {
        EXPECT_EQ(getData(), (Chunks{{kContinues, ""}}));
    }
    EXPECT_EQ(request_->state(), RequestState::AllPartsReceived);
}

TEST_F(RequestDataTest, ChunkSizeZeroEndsAnEmptyPart) {
    make(0);
    announce(1);
    request_->addResponseData("", true);
    EXPECT_EQ(getData(), (Chunks{{kResponse, ""}}));
}

TEST_F(RequestDataTest, NoChunkIsLargerThanTheBusCarries) {
    EXPECT_EQ(Answer::kLargestChunk, 16U * 1024 * 1024);
    make(4294967295U);
    announce(1);
    request_->addResponseData(std::string(Answer::kLargestChunk + 1, 'x'), true);
    const Chunks first = getData();
    ASSERT_EQ(first.size(), 1U);
    EXPECT_EQ(first[0].code, kContinues);
    EXPECT_EQ(first[0].bytes.size(), Answer::kLargestChunk);
    EXPECT_EQ(getData(), (Chunks{{kResponse, "x"}}));
}

TEST_F(RequestDataTest, LargestChunkThatFitsGoesOutWhole) {
    make(4294967295U);
    announce(1);
    request_->addResponseData(std::string(Answer::kLargestChunk, 'x'), true);
    const Chunks only = getData();
    ASSERT_EQ(only.size(), 1U);
    EXPECT_EQ(only[0].code, kResponse);
    EXPECT_EQ(only[0].bytes.size(), Answer::kLargestChunk);
}

TEST_F(RequestDataTest, PartRepeatedAfterTheWholeAnswerWasDeliveredAddsNothing) {
    announce(1);
    request_->addResponseData("answer", true);
    EXPECT_EQ(getData(), (Chunks{{kResponse, "answer"}}));
    request_->addResponseData("again", false);
    request_->addResponseData("again", true);
    EXPECT_EQ(request_->state(), RequestState::Delivered);
    EXPECT_EQ(getData(), Chunks{});
    EXPECT_FALSE(request_->deliverNext());
}

TEST_F(RequestDataTest, WithoutOwnerChunksGoNowhere) {
    RequestData request(3, 17, true, makeParameters(100));
    request.setExpectedPartIds({"part1"});
    request.addResponseData("answer", true);
    request.requestNextChunk();
    EXPECT_EQ(request.state(), RequestState::Delivered);
}

// -- cancelled -----------------------------------------------------------------------------------

TEST_F(RequestDataTest, CancelledRequestStoresNoBytesAndReachesDelivered) {
    announce(2);
    request_->addResponseData("a", false);
    request_->setCancelled(true);
    request_->addResponseData("b", false);
    EXPECT_EQ(request_->state(), RequestState::Receiving);
    request_->addResponseData("c", true);
    EXPECT_EQ(request_->state(), RequestState::PartReceived);
    request_->addResponseData("d", true);
    EXPECT_EQ(request_->state(), RequestState::Delivered);
    EXPECT_EQ(getData(), Chunks{});
}

TEST_F(RequestDataTest, CancelledRequestHandsNothingOut) {
    announce(1);
    request_->addResponseData("a", false);
    request_->setCancelled(true);
    EXPECT_TRUE(request_->deliverNext());
    EXPECT_EQ(getData(), Chunks{});
}

TEST_F(RequestDataTest, CancelledAfterAllPartsCameItIsDeliveredAtTheNextCall) {
    announce(1);
    request_->addResponseData("a", true);
    request_->setCancelled(true);
    EXPECT_EQ(request_->state(), RequestState::AllPartsReceived);
    EXPECT_TRUE(request_->deliverNext());
    EXPECT_EQ(request_->state(), RequestState::Delivered);
}

TEST_F(RequestDataTest, CancelledWithoutAnnouncedPartsIsNotDelivered) {
    request_->setCancelled(true);
    request_->addResponseData("a", true);
    EXPECT_EQ(request_->state(), RequestState::PartReceived);
}

// -- random sequences against the rules written down once more -----------------------------------

class RandomSequences : public RequestDataTest {
protected:
    /// One random operation on the request and on the model.
    void step() {
        switch (below(12)) {
        case 0:
        case 1:
        case 2: {
            const std::string bytes = randomBytes();
            const bool complete = below(3) == 0;
            request_->addResponseData(bytes, complete);
            model_.add(bytes, complete);
            break;
        }
        case 3:
        case 4:
            request_->requestNextChunk();
            model_.next();
            break;
        case 5: {
            const std::string id = "id" + std::to_string(below(4));
            ASSERT_EQ(request_->acceptPartId(id), model_.accept(id));
            break;
        }
        case 6: {
            const std::string id = "id" + std::to_string(below(4));
            request_->addExpectedPartId(id);
            model_.addExpected(id);
            break;
        }
        case 7:
        case 8: {
            const std::string bytes = randomBytes();
            const bool last = below(3) == 0;
            if (model_.accepting) {
                model_.append(bytes, last);
                ASSERT_TRUE(request_->appendIfAccepting(bytes, last));
            } else {
                ASSERT_FALSE(request_->appendIfAccepting(bytes, last));
            }
            break;
        }
        case 9: {
            std::string room(below(20), '#');
            const OutgoingPart::Piece taken = request_->takeRequestData(room);
            const auto [bytes, finished] = model_.take(room.size());
            ASSERT_EQ(room.substr(0, taken.bytes), bytes);
            ASSERT_EQ(taken.finished, finished);
            break;
        }
        case 10:
            model_.accepting = true;
            request_->setAcceptingData(true);
            break;
        default:
            seldom();
        }
    }

    void seldom() {
        switch (below(20)) {
        case 0:
            model_.setCancelled(!model_.cancelled);
            request_->setCancelled(model_.cancelled);
            break;
        case 1:
            model_.setExpected({"id1", "id2"});
            request_->setExpectedPartIds({"id1", "id2"});
            break;
        default:
            ASSERT_EQ(request_->deliverNext(), model_.deliver());
        }
    }

    void compare() {
        ASSERT_EQ(receiver_.taken(), std::exchange(model_.chunks, {}));
        ASSERT_EQ(static_cast<int>(request_->state()), model_.state);
        ASSERT_EQ(request_->isWaitingForGetData(), model_.waitingForGetData);
        ASSERT_EQ(request_->isAcceptingData(), model_.accepting);
        ASSERT_EQ(request_->hasExpectedPartIds(), !model_.expected.empty());
        ASSERT_EQ(request_->hasOutstandingPartIds(), !model_.outstanding.empty());
    }

    void start(std::uint32_t chunkSize) {
        make(chunkSize);
        model_ = RequestModel{};
        model_.chunkSize = chunkSize;
        if (below(2) == 0) {
            request_->setContentId("part1");
            request_->writePartHeader("BOUNDARY");
            model_.header = kHeader;
        }
    }

    std::size_t below(std::size_t limit) { return random_() % limit; }

private:
    std::string randomBytes() {
        constexpr std::array<char, 4> kAlphabet = {'a', '\r', '\n', 'b'};
        std::string bytes(below(8), 'a');
        for (char& byte : bytes) {
            byte = kAlphabet[below(kAlphabet.size())];
        }
        return below(2) == 0 ? bytes : bytes + "\r\n";
    }

    std::mt19937 random_{1415}; // NOLINT(cert-msc51-cpp): the same run every time
    RequestModel model_;
};

TEST_F(RandomSequences, AgreeWithTheModel) {
    constexpr std::array<std::uint32_t, 5> kChunkSizes = {0, 1, 2, 7, 1000};
    for (int run = 0; run < 3000; ++run) {
        start(kChunkSizes[below(kChunkSizes.size())]);
        const std::size_t steps = 10 + below(60);
        for (std::size_t number = 0; number < steps; ++number) {
            ASSERT_NO_FATAL_FAILURE(step()) << "run " << run << " step " << number;
            ASSERT_NO_FATAL_FAILURE(compare()) << "run " << run << " step " << number;
        }
    }
}

// -- transfer queue ------------------------------------------------------------------------------

using Queue = std::vector<std::shared_ptr<RequestData>>;

std::shared_ptr<RequestData> queued(std::uint32_t requestId, bool prepared) {
    static const auto parameters = makeParameters(1);
    return std::make_shared<RequestData>(1, requestId, prepared, parameters);
}

TEST(QueuePosition, IsZeroInAnEmptyQueue) {
    EXPECT_EQ(queued(1, true)->queuePosition({}), 0);
    EXPECT_EQ(queued(1, false)->queuePosition({}), 0);
}

TEST(QueuePosition, PreparedGoesBehindLowerPreparedAndBeforeAttached) {
    const Queue queue = {queued(2, true), queued(4, true), queued(1, false), queued(3, false)};
    EXPECT_EQ(queued(1, true)->queuePosition(queue), 0);
    EXPECT_EQ(queued(3, true)->queuePosition(queue), 1);
    EXPECT_EQ(queued(9, true)->queuePosition(queue), 2);
}

TEST(QueuePosition, AttachedGoesBehindEveryPreparedAndLowerAttached) {
    const Queue queue = {queued(2, true), queued(9, true), queued(3, false), queued(5, false)};
    EXPECT_EQ(queued(1, false)->queuePosition(queue), 2);
    EXPECT_EQ(queued(4, false)->queuePosition(queue), 3);
    EXPECT_EQ(queued(6, false)->queuePosition(queue), 4);
}

/// The walk along the queue that defines the position.
int walk(const RequestData& request, const Queue& queue) {
    int passed = 0;
    for (const auto& entry : queue) {
        const bool higher = !entry->isPrepared() && entry->requestId() > request.requestId();
        const bool stop = request.isPrepared()
                              ? !entry->isPrepared() || entry->requestId() > request.requestId()
                              : higher;
        if (stop) {
            break;
        }
        ++passed;
    }
    return passed;
}

TEST(QueuePosition, IsWhereTheWalkStopsForEveryOrderOfInsertion) {
    std::mt19937 random(7); // NOLINT(cert-msc51-cpp): the same run every time
    for (int run = 0; run < 200; ++run) {
        std::vector<std::uint32_t> ids(20);
        for (std::size_t i = 0; i < ids.size(); ++i) {
            ids[i] = static_cast<std::uint32_t>(i + 1);
        }
        std::shuffle(ids.begin(), ids.end(), random);
        Queue queue;
        for (const std::uint32_t id : ids) {
            const auto request = queued(id, random() % 2 == 0);
            const int position = request->queuePosition(queue);
            ASSERT_EQ(position, walk(*request, queue));
            queue.insert(queue.begin() + position, request);
        }
        EXPECT_TRUE(std::is_sorted(queue.begin(), queue.end(), [](const auto& a, const auto& b) {
            return std::pair(!a->isPrepared(), a->requestId()) <
                   std::pair(!b->isPrepared(), b->requestId());
        }));
    }
}

// -- two threads ---------------------------------------------------------------------------------

TEST(RequestDataThreads, AcceptedDataIsTakenWholeAndInOrder) {
    for (int run = 0; run < 20; ++run) {
        RequestData request(3, 17, true, makeParameters(1));
        request.setAcceptingData(true);
        std::string accepted = "\r\n";
        std::thread client([&] {
            for (int number = 0; number < 400; ++number) {
                const std::string bytes = std::to_string(number) + ",";
                if (request.appendIfAccepting(bytes, number == 399)) {
                    accepted += bytes;
                }
            }
        });
        std::string taken;
        std::string room(7, '#');
        for (bool finished = false; !finished;) {
            const OutgoingPart::Piece piece = request.takeRequestData(room);
            taken += room.substr(0, piece.bytes);
            finished = piece.finished;
        }
        client.join();
        EXPECT_EQ(taken, accepted);
    }
}

TEST(RequestDataThreads, DataIsTakenOrRefusedWhenThePartIsClosedMeanwhile) {
    for (int run = 0; run < 100; ++run) {
        RequestData request(3, 17, true, makeParameters(1));
        request.setAcceptingData(true);
        std::string accepted = "\r\n";
        std::atomic<bool> begun = false;
        std::thread client([&] {
            begun = true;
            for (int number = 0; number < 50; ++number) {
                if (request.appendIfAccepting("x", true)) {
                    accepted += 'x';
                }
            }
        });
        while (!begun) {
            std::this_thread::yield();
        }
        request.appendRequestData("", true); // the client's time is up
        std::string taken;
        std::string room(64, '#');
        for (bool finished = false; !finished;) {
            const OutgoingPart::Piece piece = request.takeRequestData(room);
            taken += room.substr(0, piece.bytes);
            finished = piece.finished;
        }
        client.join();
        ASSERT_EQ(taken, accepted) << "nothing that was accepted may be lost";
    }
}

/// Puts the response together as the client does, with a lock because two threads deliver.
class Client : public IChunkReceiver {
public:
    void postChunk(std::uint32_t /*connectionId*/, std::uint32_t /*requestId*/, DeliveryCode code,
                   std::string bytes) override {
        const std::lock_guard guard(mutex_);
        response_ += bytes;
        complete_ = code == DeliveryCode::ResponseComplete;
    }
    bool isComplete() const {
        const std::lock_guard guard(mutex_);
        return complete_;
    }
    std::string response() const {
        const std::lock_guard guard(mutex_);
        return response_;
    }

private:
    mutable std::mutex mutex_;
    std::string response_;  // guarded by mutex_
    bool complete_ = false; // guarded by mutex_
};

TEST(RequestDataThreads, ResponseIsDeliveredWholeWhileItArrives) {
    for (int run = 0; run < 20; ++run) {
        Client client;
        RequestData request(3, 17, true, makeParameters(5), NotFlagged, &client);
        request.setExpectedPartIds({"a"});
        std::string sent;
        for (int number = 0; number < 500; ++number) {
            sent += std::to_string(number) + ",";
        }
        std::thread worker([&] {
            for (std::size_t at = 0; at < sent.size(); at += 11) {
                request.addResponseData(std::string_view(sent).substr(at, 11), false);
            }
            request.addResponseData("", true);
        });
        while (!client.isComplete()) {
            if (request.isWaitingForGetData()) {
                request.requestNextChunk();
            }
            std::this_thread::yield();
        }
        worker.join();
        EXPECT_EQ(client.response(), sent);
        EXPECT_EQ(request.state(), RequestState::Delivered);
    }
}

// -- back-pressure -------------------------------------------------------------------------------

TEST_F(RequestDataTest, AnswerIsStoredWholeThoughNobodyFetches) {
    make(65536);
    announce(1);
    const std::string piece(2 * BackPressure::kLeastHighWater, 'x');
    const auto begin = std::chrono::steady_clock::now();
    request_->addResponseData(piece, false);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, BackPressure::kLongestPause);
    request_->addResponseData(piece, true);
    EXPECT_EQ(request_->state(), RequestState::AllPartsReceived);
    std::size_t fetched = 0;
    while (request_->state() != RequestState::Delivered) {
        for (const Chunk& chunk : getData()) {
            fetched += chunk.bytes.size();
        }
    }
    EXPECT_EQ(fetched, 2 * piece.size());
    EXPECT_EQ(request_->answer().storedBytes(), 0U);
}

TEST_F(RequestDataTest, ClientThatKeepsPaceLeavesNoMoreWaiting) {
    make(65536);
    announce(1);
    const std::string piece(65536, 'x');
    request_->addResponseData(piece, false);
    for (int number = 0; number < 100; ++number) {
        request_->addResponseData(piece, false);
        ASSERT_EQ(getData().size(), 1U);
        ASSERT_EQ(request_->answer().storedBytes(), piece.size());
    }
}

TEST_F(RequestDataTest, BytesHandedToAWaitingClientAreNotAheadOfIt) {
    getData();
    request_->addResponseData(std::string(100, 'x'), false);
    EXPECT_EQ(request_->answer().storedBytes(), 0U);
    getData();
    request_->addResponseData(std::string(130, 'x'), false);
    EXPECT_EQ(request_->answer().storedBytes(), 30U);
}

TEST_F(RequestDataTest, LineBreakBeforeADelimiterIsNotAheadOfTheClient) {
    announce(1);
    request_->addResponseData("abc\r", false);
    request_->addResponseData("\n", true);
    EXPECT_EQ(request_->answer().storedBytes(), 3U);
}

TEST_F(RequestDataTest, CancelledRequestPausesForNobody) {
    request_->setCancelled(true);
    request_->addResponseData(std::string(2 * BackPressure::kLeastHighWater, 'x'), false);
    EXPECT_EQ(request_->answer().storedBytes(), 0U);
}

TEST_F(RequestDataTest, CancelledRequestYieldsForNobody) {
    make(4096);
    announce(1);
    const std::string chunk(4096, 'x');
    request_->addResponseData(chunk, false);
    request_->addResponseData(chunk, false);
    getData();
    const int before = fake_threads::yieldsOfThisThread();
    request_->addResponseData(chunk, false);
    EXPECT_EQ(fake_threads::yieldsOfThisThread(), before + 1);
    getData();
    request_->setCancelled(true);
    request_->addResponseData(chunk, false);
    EXPECT_EQ(fake_threads::yieldsOfThisThread(), before + 1);
}

TEST_F(RequestDataTest, HighWaterIsThatOfTheChunksDelivered) {
    make(2 * 1024 * 1024);
    EXPECT_EQ(request_->answer().highWater(), 4U * 1024 * 1024);
    make(0xffffffff);
    EXPECT_EQ(request_->answer().highWater(), 2 * Answer::kLargestChunk);
}

/// Whether the worker still paused after an operation that takes the request's lock. It may not, on
/// a busy machine: a pause is short.
bool isUsableDuringAPause() {
    RequestData request(3, 17, true, makeParameters(1));
    std::atomic<bool> done = false;
    std::thread worker([&] {
        request.addResponseData(std::string(BackPressure::kLeastHighWater, 'x'), false);
        done = true;
    });
    while (!request.answer().isPausing() && !done) {
        std::this_thread::yield();
    }
    (void)request.isWaitingForGetData();
    const bool stillPauses = request.answer().isPausing();
    worker.join();
    return stillPauses;
}

TEST(RequestDataThreads, RequestCanBeUsedWhileTheWorkerPauses) {
    const gint64 end = g_get_monotonic_time() + std::chrono::microseconds(test::kPatience).count();
    bool isUsable = false;
    while (!isUsable && g_get_monotonic_time() < end) {
        isUsable = isUsableDuringAPause();
    }
    EXPECT_TRUE(isUsable);
}

TEST(RequestDataThreads, FieldsAreReadWhileTheOtherThreadWritesThem) {
    RequestData request(3, 17, true, makeParameters(1));
    std::thread worker([&] {
        for (std::uint32_t number = 0; number < 5000; ++number) {
            request.setState(static_cast<RequestState>(number % 8));
            request.setAcceptingData(number % 2 == 0);
            request.setCancelled(number % 2 == 0);
        }
    });
    std::uint32_t highest = 0;
    for (int round = 0; round < 5000; ++round) {
        highest = std::max(highest, static_cast<std::uint32_t>(request.state()));
        (void)request.isAcceptingData();
        (void)request.isCancelled();
        (void)request.isWaitingForGetData();
    }
    worker.join();
    EXPECT_LE(highest, 7U);
}

TEST_F(RequestDataTest, BytesForAClientThatWaitsAreCopiedOnce) {
    make(65536);
    announce(1);
    const std::string piece(16384, 'x');
    request_->requestNextChunk();
    request_->addResponseData(piece, false); // the list of chunks grows
    (void)receiver_.taken();
    request_->requestNextChunk();
    const failing_memory::Count count;
    request_->addResponseData(piece, false);
    EXPECT_LE(count.bytes(), piece.size() + 1024);
    EXPECT_EQ(receiver_.taken(), (Chunks{{kContinues, piece}}));
}

TEST_F(RequestDataTest, StoredChunksAreHandedOutWithoutAnotherCopy) {
    for (const std::uint32_t chunk : {4096U, 65536U, 262144U}) {
        make(chunk);
        announce(1);
        const std::string answer(std::size_t{4} * chunk, 'x');
        for (std::size_t at = 0; at < answer.size(); at += 5000) {
            request_->addResponseData(std::string_view(answer).substr(at, 5000), false);
        }
        const failing_memory::Count count;
        for (int number = 0; number < 4; ++number) {
            request_->requestNextChunk();
            ASSERT_EQ(receiver_.taken(), (Chunks{{kContinues, std::string(chunk, 'x')}}));
        }
        // What the test makes itself: the expected chunks and the list.
        EXPECT_LE(count.bytes(), 3 * answer.size() + 1024) << chunk;
    }
}

TEST_F(RequestDataTest, BytesBeyondTheChunkOfAClientThatWaitsAreKept) {
    make(4);
    announce(1);
    request_->requestNextChunk();
    request_->addResponseData("abcdefghij", false);
    EXPECT_EQ(receiver_.taken(), (Chunks{{kContinues, "abcd"}}));
    request_->requestNextChunk();
    request_->requestNextChunk();
    request_->addResponseData("kl", true);
    request_->requestNextChunk();
    EXPECT_EQ(receiver_.taken(),
              (Chunks{{kContinues, "efgh"}, {kContinues, "ij"}, {kResponse, "kl"}}));
}

// -- keys ----------------------------------------------------------------------------------------

TEST(RequestKey, IsConnectionColonRequestInDecimal) {
    EXPECT_EQ(requestKey(3, 17), "3:17");
    EXPECT_EQ(requestKey(0, 0), "0:0");
    EXPECT_EQ(requestKey(4294967295U, 4294967295U), "4294967295:4294967295");
}

TEST(RequestKey, FirstKeyOfAListHasNoBlank) {
    std::string list;
    appendKey(list, "1:2");
    EXPECT_EQ(list, "1:2");
}

TEST(RequestKey, KeysOfAListAreSeparatedByOneBlank) {
    std::string list;
    appendKey(list, "1:2");
    appendKey(list, "1:3");
    appendKey(list, "10:4");
    EXPECT_EQ(list, "1:2 1:3 10:4");
}

} // namespace
} // namespace orvexd
