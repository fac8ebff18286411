// A server's structures are limited: beyond the limits the response is given up at once.

#include "fakes/FakeThreads.h"
#include "protocol/Codes.h"
#include "slp/ResponseFixture.h"

#include <string>

namespace orvexd::test {
namespace {

const std::string kUnparsable = "could not parse document";
constexpr std::size_t kPiece = 16384; // libcurl's

class SlpResponseLimits : public SlpResponseBody {
protected:
    void feedInPieces(const std::string& bytes) {
        for (std::size_t at = 0; at < bytes.size(); at += kPiece) {
            feed(bytes.substr(at, kPiece));
        }
    }

    /// Feeds a piece for which there is room only when it is too late.
    void feedTooLate(const std::string& bytes) {
        MemoryBudget& budget = MemoryBudget::process();
        Charge others(budget, budget.size());
        fake_threads::replaceWaits([&others](std::int64_t /*deadline*/) {
            others.set(0);
            return false;
        });
        feed(bytes);
        fake_threads::replaceWaits(nullptr);
    }

    /// A start part of so many bytes, its headers included, for one request.
    static std::string startPartOf(std::size_t size) {
        std::string part = startPart({"a"});
        const std::size_t begin = part.find("\r\n--bb") + std::string("\r\n--bb").size();
        part.insert(part.find("<SlpResponse"), size - (part.size() - begin), ' ');
        return part;
    }
};

TEST_F(SlpResponseLimits, StartPartMayHaveEightMebibytes) {
    begin(1);
    const std::size_t lineBreak = 2; // in front of the next delimiter, part of the start part here
    feedInPieces(startPartOf(SlpResponseParser::kLargestStartPart - lineBreak));
    feed(part("a", "data") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), (Parts{"data"}));
}

TEST_F(SlpResponseLimits, LongerStartPartIsNoDocument) {
    begin(1);
    feedInPieces(startPartOf(SlpResponseParser::kLargestStartPart + 1));
    feed(part("a", "data") + kEnd);
    expectError(failure::kFormat, kUnparsable);
    EXPECT_TRUE(isGivenUp());
    EXPECT_EQ(parts(1), Parts{});
}

TEST_F(SlpResponseLimits, StartPartWithoutEndIsGivenUpWhileItComes) {
    begin(1);
    feed(startPart({"a"}));
    const std::string piece(kPiece, ' ');
    for (std::size_t fed = kPiece; fed < SlpResponseParser::kLargestStartPart; fed += kPiece) {
        feed(piece);
        ASSERT_FALSE(isGivenUp()) << fed;
    }
    feed(piece);
    EXPECT_TRUE(isGivenUp());
    expectError(failure::kFormat, kUnparsable);
}

/// The header block of a part whose delimiter ended a piece.
std::string headerBlock(std::size_t size) {
    const std::string id = "Content-Id: a\r\n";
    return id + "X: " + std::string(size - id.size() - 3, 'x');
}

TEST_F(SlpResponseLimits, HeaderBlockMayHave64Kibibytes) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb");
    feedInPieces("\r\n" + headerBlock(SlpResponseParser::kLargestHeaderBlock - 10) + "\r\n\r\n");
    feed("data" + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), (Parts{"data"}));
}

TEST_F(SlpResponseLimits, LongerHeaderBlockIsFaulty) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb");
    feedInPieces("\r\n" + headerBlock(SlpResponseParser::kLargestHeaderBlock + 1));
    EXPECT_TRUE(isGivenUp());
    expectError(failure::kFormat, kFaulty);
}

TEST_F(SlpResponseLimits, HeadWithoutEndIsGivenUp) {
    startExchange(1);
    feed("HTTP/1.1 200 OK\r\n");
    feedInPieces(std::string(SlpResponseParser::kLargestHead, 'x'));
    EXPECT_TRUE(isGivenUp());
    expectError(failure::kFormat, kFaulty);
}

std::string manyIds(std::size_t count) {
    std::string ids;
    for (std::size_t number = 0; number < count; ++number) {
        ids += (number == 0 ? "p" : " p") + std::to_string(number);
    }
    return ids;
}

TEST_F(SlpResponseLimits, AHundredThousandPartsMayBeAnnounced) {
    begin(1);
    feedInPieces(startPart({manyIds(100'000)}));
    feed(part("p99999", "data"));
    EXPECT_FALSE(isGivenUp());
    EXPECT_TRUE(request(1).hasOutstandingPartIds());
    EXPECT_EQ(parts(1), (Parts{"data"}));
}

TEST_F(SlpResponseLimits, MoreIdsThanTheBudgetPaysForAreNoDocument) {
    begin(1);
    SmallBudget budget(1024 * 1024);
    feedInPieces(startPart({manyIds(5'000)}));
    feed(part("p0", "data"));
    EXPECT_TRUE(isGivenUp());
    expectError(failure::kFormat, kUnparsable);
}

TEST_F(SlpResponseLimits, IdsOfFaultyDocumentsCountToo) {
    begin(1);
    SmallBudget budget(1024 * 1024);
    std::string faulty = startPart({manyIds(1'000)});
    faulty.insert(faulty.find("</SlpResponse"), "<other/>");
    for (int number = 0; number < 2; ++number) {
        feedInPieces(faulty);
        ASSERT_FALSE(isGivenUp());
    }
    feedInPieces(faulty);
    feed(kEnd);
    EXPECT_TRUE(isGivenUp());
}

TEST_F(SlpResponseLimits, AnnouncementsOfNextPartsCountToo) {
    begin(1);
    SmallBudget budget(1024 * 1024);
    feed(startPart({"n0"}));
    for (int number = 0; number < 3'000 && !isGivenUp(); ++number) {
        feed("\r\n--bb\r\nContent-Id: n" + std::to_string(number) + "\r\nX-Slp-Next-Part-Id: n" +
             std::to_string(number + 1) + "\r\n\r\n");
    }
    EXPECT_TRUE(isGivenUp());
    expectError(failure::kFormat, kFaulty);
}

TEST_F(SlpResponseLimits, MorePartsThanAnAccountPaysForAreFaulty) {
    begin(1);
    SmallBudget budget(1024 * 1024);
    feed(startPart({"a"}));
    std::size_t fed = 0;
    while (!isGivenUp() && fed < 10'000) {
        feed(part("a", "x"));
        ++fed;
    }
    EXPECT_TRUE(isGivenUp());
    EXPECT_NEAR(static_cast<double>(fed), 0.75 * 1024 * 1024 / Answer::kPartCost, 4);
    expectError(failure::kFormat, kFaulty);
}

TEST_F(SlpResponseLimits, TheReasonForGivingUpStays) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb");
    feedInPieces(std::string(SlpResponseParser::kLargestHeaderBlock + 1, 'x'));
    finish();
    expectError(failure::kFormat, kFaulty);
}

TEST_F(SlpResponseLimits, AResponseThatIsGivenUpIsNotReadAnyMore) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb");
    feedInPieces(std::string(SlpResponseParser::kLargestHeaderBlock + 1, 'x'));
    feed(part("a", "data") + kEnd);
    EXPECT_EQ(parts(1), Parts{});
}

TEST_F(SlpResponseLimits, NothingBehindALostPieceIsDelivered) {
    begin(1);
    feed(startPart({"a b"}) + part("a", "1"));
    feedTooLate("lost" + part("b", "data") + kEnd);
    feed(part("b", "data") + kEnd);
    EXPECT_TRUE(hasStalled());
    EXPECT_EQ(parts(1), Parts{"1"});
}

TEST_F(SlpResponseLimits, TheEndCompletesNoPartThatHasLostAPiece) {
    begin(1);
    feed(startPart({"a"}) + part("a", "1"));
    feedTooLate("lost\r");
    finish();
    EXPECT_EQ(parts(1), Parts{"1"});
    EXPECT_EQ(request(1).state(), RequestState::Receiving);
}

TEST_F(SlpResponseLimits, EverythingIsGivenBackAtTheEnd) {
    const std::size_t before = MemoryBudget::process().held();
    begin(1);
    feedInPieces(startPart({manyIds(1'000)}));
    feed(part("p0", "data") + kEnd);
    EXPECT_GT(MemoryBudget::process().held(), before);
    finish();
    startExchange(1);
    EXPECT_LE(MemoryBudget::process().held(), before + 1024);
}

} // namespace
} // namespace orvexd::test
