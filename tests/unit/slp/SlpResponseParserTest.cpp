#include "slp/SlpResponseParser.h"

#include "slp/ResponseFixture.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace orvexd {
namespace {

using namespace test;

// -- head ---------------------------------------------------------------------------------------

TEST_F(SlpResponse, StartsWithoutError) {
    expectNoError();
    SlpResponseParser parser({});
    EXPECT_EQ(parser.errorCode(), 0);
    EXPECT_EQ(parser.errorText(), "");
}

TEST_F(SlpResponse, ConsumesNothingOfAnEmptyChunk) {
    feed("");
    expectNoError();
}

TEST_F(SlpResponse, ReadsAHeadThatArrivesLineByLine) {
    feedAll({"HTTP/1.1 200 OK\r\n", "Content-Type: multipart/related; boundary=bb; start=s\r\n",
             "Server: x\r\n", "\r\n",
             startPart({"a", "b"}) + part("a", "A") + part("b", "B") + kEnd});
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
    EXPECT_EQ(parts(2), Parts{"B"});
}

TEST_F(SlpResponse, ReadsAHeadThatArrivesByteByByte) {
    for (const char c : kHead) {
        feed(std::string(1, c));
    }
    expectNoError();
    feed(startPart({"a", "b"}) + part("a", "A") + part("b", "B") + kEnd);
    finish();
    expectNoError();
}

TEST_F(SlpResponse, LosesBodyBytesInTheChunkThatEndsTheHead) {
    feed(kHead + startPart({"a", "b"}) + part("a", "A"));
    feed(part("b", "B") + kEnd);
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponse, RefusesAnAnswerThatIsNotHttp) {
    feed("ICY 200 OK\r\n\r\n");
    expectError(51,
                "Malformed response from server: should start with HTTP, instead of: [ICY 200 OK]");
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponse, ReportsAHeadWithoutCode) {
    feed("HTTP/1.1 99999999999999999999999 OK\r\n\r\n");
    expectError(51, "No HTTP response code");
}

TEST_F(SlpResponse, ForgetsTheErrorOfAnInterimHead) {
    feedAll({"HTTP/1.1 100 Continue\r\n", "\r\n"});
    expectError(1003, "No Content-Type header");
    feed("HTTP/1.1 200 OK\r\n");
    expectNoError();
    feedAll({"Content-Type: multipart/related; boundary=bb; start=s\r\n", "\r\n",
             startPart({"a", "b"}) + part("a", "A") + part("b", "B") + kEnd});
    finish();
    expectNoError();
}

TEST_F(SlpResponse, KeepsCodeAndTextOfAnErrorThatNoLongerCounts) {
    feedAll({"HTTP/1.1 100 Continue\r\n\r\n", "HTTP/1.1 200 OK\r\n"});
    expectNoError();
    expectStored(1003, "No Content-Type header");
}

TEST_F(SlpResponse, ForgetsTheErrorOfAProxysHead) {
    feedAll({"HTTP/1.1 200 Connection established\r\n", "\r\n", kHead,
             startPart({"a", "b"}) + part("a", "A") + part("b", "B") + kEnd});
    finish();
    expectNoError();
}

TEST_F(SlpResponse, StartsTheHeadAnewWhenAnUnfinishedOneIsFollowedByAnother) {
    feedAll({"HTTP/1.1 500 Broken\r\n", kHead});
    expectNoError();
}

TEST_F(SlpResponse, ReadsAnEmptyHeadFromEveryChunkBehindAHeadWithoutBoundary) {
    feed("HTTP/1.1 200 OK\r\nContent-Type: text/html; start=s\r\n\r\n");
    expectError(1003, "boundary not found");
    feed("<html>");
    expectError(51, "Malformed response from server: should start with HTTP, instead of: []");
    feed("\r\n\r\n");
    expectError(51, "Malformed response from server: should start with HTTP, instead of: []");
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponse, ReportsMissingPartsForANotFoundPage) {
    feedAll({"HTTP/1.1 404 Not Found\r\n", "Content-Type: text/html\r\n", "\r\n"});
    expectError(1003, "'start' attribute not found");
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponse, ParsesTheBodyOfAnErrorStatusAndReportsIt) {
    const std::string type = "\r\nContent-Type: multipart/related; boundary=bb; start=s";
    feedAll({"HTTP/1.1 503 Service Unavailable" + type + "\r\n\r\n",
             startPart({"a", "b"}) + part("a", "A") + part("b", "B") + kEnd});
    finish();
    expectError(55, "Service Unavailable" + type);
    EXPECT_EQ(parts(1), Parts{"A"});
    EXPECT_EQ(parts(2), Parts{"B"});
    EXPECT_EQ(request(1).state(), RequestState::Delivered);
}

TEST_F(SlpResponse, ReplacesTheErrorStatusByALaterError) {
    feedAll({"HTTP/1.1 503 No\r\nContent-Type: m; boundary=bb; start=s\r\n\r\n",
             startPart({"a", "b"}) + part("a", "A") + kEnd});
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponse, ParsesABodyWithoutStartParameterWhereAPartWithoutIdIsTheStartPart) {
    startExchange(1);
    feed("HTTP/1.1 200 OK\r\nContent-Type: m; boundary=bb\r\n\r\n");
    expectError(1003, "'start' attribute not found");
    std::string anonymous = startPart({"a"});
    anonymous.replace(anonymous.find("Content-Id: s"), 13, "X: y");
    feed(anonymous + part("a", "A") + kEnd);
    finish();
    expectError(1003, "'start' attribute not found");
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponse, UsesABoundaryFromWhichQuotesAndEqualsSignsVanished) {
    startExchange(1);
    feed("HTTP/1.1 200 OK\r\nContent-Type: m; boundary=\"b=b\"; start='s'\r\n\r\n");
    feed(startPart({"a"}) + part("a", "A") + kEnd);
    finish();
    expectNoError();
}

// -- routing ------------------------------------------------------------------------------------

TEST_F(SlpResponseBody, GivesEachPartToTheRequestThatItIsAnnouncedFor) {
    feed(startPart({"a1 a2", "b"}) + part("b", "B") + part("a2", "A2") + part("a1", "A1") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), (Parts{"A2", "A1"}));
    EXPECT_EQ(parts(2), Parts{"B"});
}

TEST_F(SlpResponseBody, AcceptsAMissingPreambleAndAnyPreamble) {
    for (const char* preamble : {"", "\r\n", "preamble", "--b"}) {
        begin(1);
        feed(preamble);
        feed(startPart({"a"}).substr(2) + part("a", "A") + kEnd);
        finish();
        expectNoError();
        EXPECT_EQ(parts(1), Parts{"A"});
    }
}

TEST_F(SlpResponse, ForgetsTheErrorStatusWhenThePreambleLooksLikeAHead) {
    feed("HTTP/1.1 503 Busy\r\nContent-Type: m; boundary=bb; start=s\r\n\r\n");
    EXPECT_TRUE(hasError());
    feed("HTTP is how the first chunk of the body begins");
    expectNoError();
    feed(startPart({"a", "b"}) + part("a", "A") + part("b", "B") + kEnd);
    finish();
    expectNoError();
}

TEST_F(SlpResponseBody, GivesAPartToTheFirstRequestInQueueOrder) {
    feed(startPart({"same", "same"}) + part("same", "1") + part("same", "2") + kEnd);
    finish();
    expectError(1003, kMissing);
    EXPECT_EQ(parts(1), Parts{"12"}); // the second one comes after all that was announced
    EXPECT_EQ(parts(2), Parts{});
}

TEST_F(SlpResponseBody, AcceptsARepeatedId) {
    begin(1);
    feed(startPart({"a"}) + part("a", "1") + part("a", "2") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(request(1).state(), RequestState::PartReceived);
}

TEST_F(SlpResponseBody, SurvivesAPartRepeatedAfterItsAnswerWasDelivered) {
    begin(1);
    feed(startPart({"a"}) + part("a", "1") + "\r\n--bb");
    EXPECT_EQ(parts(1), Parts{"1"});
    EXPECT_EQ(request(1).state(), RequestState::Delivered);
    feed("\r\nContent-Id: a\r\n\r\n2" + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"1"});
}

TEST_F(SlpResponseBody, DropsAPartOfUnknownIdSilently) {
    feed(startPart({"a", "b"}) + part("x", "X") + part("a", "A") + part("b", "B") + kEnd);
    finish();
    expectNoError();
}

TEST_F(SlpResponseBody, DropsAPartOfUnknownIdOverSeveralChunksSilently) {
    feed(startPart({"a", "b"}) + part("x", "X"));
    feedAll({"more\r\n", "\r\nContent-Id: a\r\n\r\nsmuggled", "no blank line"});
    feed(part("a", "A") + part("b", "B") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, DropsAPartWithoutContentId) {
    feed(startPart({"a", "b"}) + "\r\n--bb\r\nX: y\r\n\r\ndata" + part("a", "A") + part("b", "B") +
         kEnd);
    finish();
    expectNoError();
}

TEST_F(SlpResponseBody, ReportsAPartThatNeverCame) {
    feed(startPart({"a", "b"}) + part("a", "A") + part("x", "B") + kEnd);
    finish();
    expectError(1003, kMissing);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsARequestWithoutAnnouncedParts) {
    feed(startPart({"a", "-"}) + part("a", "A") + kEnd);
    expectNoError();
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, LosesDataPartsInFrontOfTheStartPart) {
    feed(part("a", "A") + startPart({"a", "b"}) + part("b", "B") + kEnd);
    finish();
    expectError(1003, kMissing);
    EXPECT_EQ(parts(1), Parts{});
    EXPECT_EQ(parts(2), Parts{"B"});
}

TEST_F(SlpResponseBody, ComparesContentIdsByteForByte) {
    feed(startPart({"a", "b"}) + part("A", "1") + part("<a>", "2") + part("a ", "3") +
         part("b", "B") + kEnd);
    finish();
    expectError(1003, kMissing);
    EXPECT_EQ(parts(1), Parts{});
}

TEST_F(SlpResponseBody, ExpectsThePartThatAHeaderNamesAsTheNext) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb\r\nContent-Id: a\r\nx-slp-next-part-id: a2\r\n\r\nA" +
         part("a2", "A2") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), (Parts{"A", "A2"}));
    EXPECT_EQ(request(1).state(), RequestState::Delivered);
}

TEST_F(SlpResponseBody, ReportsANextPartThatNeverCame) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb\r\nContent-Id: a\r\nX-SLP-Next-part-ID: a2\r\n\r\nA" + kEnd);
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, GivesANextPartToTheFirstRequestThatExpectsIt) {
    feed(startPart({"a", "b"}) + "\r\n--bb\r\nContent-Id: b\r\nX-SLP-Next-part-ID: n\r\n\r\nB" +
         "\r\n--bb\r\nContent-Id: a\r\nX-SLP-Next-part-ID: n\r\n\r\nA" + part("n", "N") + kEnd);
    finish();
    EXPECT_EQ(parts(1), (Parts{"A", "N"}));
    EXPECT_EQ(parts(2), Parts{"B"});
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, KeepsANextPartWithTheEarlierRequestThatExpectsIt) {
    feed(startPart({"a n", "b"}) + "\r\n--bb\r\nContent-Id: b\r\nX-SLP-Next-part-ID: n\r\n\r\nB" +
         part("n", "N") + part("a", "A") + kEnd);
    finish();
    EXPECT_EQ(parts(1), (Parts{"N", "A"}));
}

TEST_F(SlpResponseBody, ForgetsANextPartWhenASecondStartPartArrives) {
    feed(startPart({"a", "b"}) + "\r\n--bb\r\nContent-Id: a\r\nX-SLP-Next-part-ID: n\r\n\r\nA" +
         startPart({"-", "n"}) + part("n", "N") + kEnd);
    finish();
    EXPECT_EQ(parts(1), Parts{"A"});
    EXPECT_EQ(parts(2), Parts{"N"});
}

TEST_F(SlpResponseBody, ReplacesTheAnnouncedIdsByThoseOfASecondStartPart) {
    begin(1);
    feed(startPart({"a"}) + part("a", "A") + startPart({"b"}) + part("b", "B") + kEnd);
    finish();
    expectError(1003, kMissing); // the results add up, so "a" is outstanding again
    EXPECT_EQ(parts(1), Parts{"AB"});
}

TEST_F(SlpResponseBody, IgnoresAResultForNoRequest) {
    begin(1);
    std::string start = startPart({"a"});
    start.insert(start.find("<result"), "<result oid=\"\" href=\"cid:x\"/><result oid=\"99\" "
                                        "href=\"cid:y\"/><result oid=\"99999999999\" "
                                        "href=\"cid:z\"/>");
    feed(start + part("x", "X") + part("a", "A") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, FinishesWithoutErrorWhenThereAreNoRequests) {
    begin(0);
    finish();
    expectNoError();
}

// -- start part ---------------------------------------------------------------------------------

TEST_F(SlpResponseBody, CollectsAStartPartOverManyChunks) {
    begin(1);
    const std::string start = startPart({"a"});
    const std::size_t headers = start.find("\r\n\r\n", 2) + 4;
    feed(start.substr(0, headers));
    for (std::size_t at = headers; at < start.size(); ++at) {
        feed(start.substr(at, 1));
    }
    feed(part("a", "A") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsAStartPartThatIsNoDocument) {
    feed("\r\n--bb\r\nContent-Id: s\r\n\r\nno document\r\n--bb");
    expectError(1003, "could not parse document");
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, ReportsAnEmptyStartPart) {
    feed("\r\n--bb\r\nContent-Id: s\r\n\r\n--bb");
    expectError(1003, "could not parse document");
}

TEST_F(SlpResponseBody, ReportsTheErrorOfTheDocument) {
    feed("\r\n--bb\r\nContent-Id: s\r\n\r\n<x/>\r\n--bb");
    expectError(1003, "SimpleLocationProtocol element faulty or does not exist");
}

TEST_F(SlpResponseBody, ReportsAStatusAsItsOwnTextUntilTheResponseEnds) {
    feed("\r\n--bb\r\nContent-Id: s\r\n\r\n<SimpleLocationProtocol><SlpResponse status=\"OK\"/>"
         "</SimpleLocationProtocol>\r\n--bb");
    expectError(51, "OK");
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, ReportsAnAbsentStatusWithoutText) {
    feed("\r\n--bb\r\nContent-Id: s\r\n\r\n<SimpleLocationProtocol><SlpResponse/>"
         "</SimpleLocationProtocol>\r\n--bb");
    expectError(51, "");
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, AnnouncesNothingFromADocumentWithAFault) {
    begin(1);
    std::string start = startPart({"a"});
    start.insert(start.find("</SlpResponse>"), "<result oid=\"1\" href=\"b\"/>");
    feed(start + part("a", "A") + kEnd);
    EXPECT_FALSE(request(1).hasExpectedPartIds());
    finish();
    expectError(1003, kMissing);
    EXPECT_EQ(parts(1), Parts{});
}

TEST_F(SlpResponseBody, AddsTheResultsInFrontOfAFaultToThoseOfTheNextDocument) {
    begin(1);
    std::string faulty = startPart({"a"});
    faulty.insert(faulty.find("</SlpResponse>"), "<x/>");
    feed(faulty + startPart({"b"}) + part("a", "A") + part("b", "B") + kEnd);
    finish();
    expectError(1003, "SlpResponse included other elements than results");
    EXPECT_EQ(parts(1), (Parts{"A", "B"}));
}

TEST_F(SlpResponseBody, AcceptsAResponseWithoutResultsAndMissesTheParts) {
    feed(startPart({"-", "-"}) + kEnd);
    expectNoError();
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, DoesNotParseAStartPartThatIsNeverClosed) {
    feed(startPart({"a", "b"}));
    finish();
    expectError(1003, kMissing);
    EXPECT_FALSE(request(1).hasExpectedPartIds());
}

TEST_F(SlpResponseBody, ReportsAStartPartWhoseBeginningWasTakenForAnOldHead) {
    startExchange(1);
    feed("HTTP/1.1 200 OK\r\nContent-Type: m; boundary=bb\r\n\r\n");
    feed("--bb\r\n\r\n<Simple"); // no headers: the empty id is the start id
    feed("HTTP</Simple>");       // looks like a further head and drops what was collected
    feed("\r\n--bb\r\n");
    expectError(1003, "Invalid SLP header part");
}

TEST_F(SlpResponseBody, StaysInTheStartPartAfterAnInvalidOne) {
    startExchange(1);
    feed("HTTP/1.1 200 OK\r\nContent-Type: m; boundary=bb\r\n\r\n");
    feedAll({"--bb\r\n\r\n<Simple", "HTTP</Simple>", "\r\n--bb"});
    feed(startPart({"a"}).substr(6) + part("a", "A") + kEnd); // the next part is the start part
    EXPECT_EQ(parts(1), Parts{"A"});
}

// -- data parts over several chunks -------------------------------------------------------------

class SlpResponseData : public SlpResponseBody {
protected:
    SlpResponseData() { reset(); }

    /// One request whose first part begins; its client has asked for a chunk.
    void reset() {
        begin(1);
        feed(startPart({"a"}) + "\r\n--bb");
        ask(1);
    }

    /// The part's header block and the first bytes of its data.
    void start(const std::string& data) { feed("\r\nContent-Id: a\r\n\r\n" + data); }

    void expectDeliveries(const std::vector<Delivery>& expected) {
        EXPECT_EQ(deliveries(1), expected);
    }
};

constexpr DeliveryCode kContinues = DeliveryCode::PartContinues;
constexpr DeliveryCode kLast = DeliveryCode::ResponseComplete;

TEST_F(SlpResponseData, HandsEachChunkOnAsItArrives) {
    start("one");
    ask(1);
    feed("two");
    ask(1);
    feed("three\r\n--bb--\r\n");
    expectDeliveries({{kContinues, "one"}, {kContinues, "two"}, {kLast, "three"}});
    finish();
    expectNoError();
}

TEST_F(SlpResponseData, SetsTheStatesOnTheWay) {
    begin(1);
    feed(startPart({"a b"}) + part("a", "A"));
    EXPECT_EQ(request(1).state(), RequestState::Receiving);
    feed(part("b", ""));
    EXPECT_EQ(request(1).state(), RequestState::Receiving);
    feed("\r\n--bb");
    EXPECT_EQ(request(1).state(), RequestState::AllPartsReceived);
}

TEST_F(SlpResponseData, TellsTheClientThatAPartBeganWithoutData) {
    start("");
    expectDeliveries({{kContinues, ""}});
    EXPECT_EQ(request(1).state(), RequestState::Receiving);
}

TEST_F(SlpResponseData, HoldsALineBreakBackUntilItIsKnownToBeData) {
    start("one\r\n");
    expectDeliveries({{kContinues, "one"}});
    ask(1);
    feed("two");
    expectDeliveries({{kContinues, "one"}, {kContinues, "\r\ntwo"}});
}

TEST_F(SlpResponseData, HoldsACarriageReturnBack) {
    start("one\r");
    ask(1);
    feed("\ntwo");
    expectDeliveries({{kContinues, "one"}, {kContinues, "\r\ntwo"}});
}

TEST_F(SlpResponseData, HandsALineFeedOnAtOnce) {
    start("one\n");
    expectDeliveries({{kContinues, "one\n"}});
}

TEST_F(SlpResponseData, DropsTheHeldLineBreakInFrontOfTheDelimiter) {
    start("one\r\n");
    ask(1);
    feed("--bb--\r\n");
    expectDeliveries({{kContinues, "one"}, {kLast, ""}});
}

TEST_F(SlpResponseData, DropsALineBreakThatTwoChunksShare) {
    start("one\r");
    ask(1);
    feed("\n--bb--\r\n");
    expectDeliveries({{kContinues, "one"}, {kLast, ""}});
}

TEST_F(SlpResponseData, KeepsAHeldCarriageReturnThatBelongsToNoLineBreak) {
    start("one\r");
    ask(1);
    feed("--bb--\r\n");
    expectDeliveries({{kContinues, "one"}, {kLast, "\r"}});
}

TEST_F(SlpResponseData, DropsOneLineBreakOnly) {
    start("one\r\n");
    ask(1);
    feed("\r\n--bb--\r\n");
    expectDeliveries({{kContinues, "one"}, {kLast, "\r\n"}});
}

TEST_F(SlpResponseData, KeepsALoneLineFeedInFrontOfTheDelimiter) {
    start("one\n--bb--\r\n");
    expectDeliveries({{kLast, "one\n"}});
}

TEST_F(SlpResponseData, DeliversNothingWhileOnlyLineBreaksAreHeld) {
    start("one");
    ask(1);
    feed("\r");
    feed("\n");
    expectDeliveries({{kContinues, "one"}});
    feed("\r");
    expectDeliveries({{kContinues, "one"}, {kContinues, "\r\n"}});
}

TEST_F(SlpResponseData, HoldsNothingOverIntoTheNextPart) {
    begin(1);
    feed(startPart({"a b"}) + part("a", "A\r\n"));
    feed("--bb\r\nContent-Id: b\r\n\r\nB" + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), (Parts{"A", "B"}));
}

TEST_F(SlpResponseData, KeepsDataThatLookLikeAHead) {
    start("one");
    feedAll({"HTTP", "HTTP/1.1 500 X\r\n\r\n", "\r\n\r\n", "HTTP"});
    feed(kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"oneHTTPHTTP/1.1 500 X\r\n\r\n\r\n\r\nHTTP"});
}

TEST_F(SlpResponseData, KeepsNulBytesAndAnyOtherByte) {
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    start(all);
    feed(all + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{all + all});
}

TEST_F(SlpResponseData, CompletesAPartThatTheResponseDoesNotClose) {
    start("one");
    feed("two\r\n");
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"onetwo"});
    EXPECT_EQ(request(1).state(), RequestState::Delivered);
}

TEST_F(SlpResponseData, FeedsDataByteByByteBetweenTheHeaderBlockAndTheDelimiter) {
    const std::string data = "\r\n-\r\n--b\r\r\n\n--\r\n";
    start("");
    for (const char c : data) {
        feed(std::string(1, c));
        ask(1);
    }
    feed("\r");
    feed("\n");
    feed("--bb--");
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{data});
}

// -- delimiters ---------------------------------------------------------------------------------

TEST_F(SlpResponseBody, DoesNotRecogniseASplitDelimiterInFrontOfTheStartPart) {
    feedAll({"\r\n--b", startPart({"a", "b"}).substr(5), part("a", "A") + part("b", "B") + kEnd});
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, RunsTwoPartsTogetherWhenTheDelimiterBetweenThemIsSplit) {
    feedAll(
        {startPart({"a", "b"}) + part("a", "A") + "\r\n--b", "b\r\nContent-Id: b\r\n\r\nB" + kEnd});
    finish();
    expectError(1003, kMissing);
    EXPECT_EQ(parts(1), Parts{"A\r\n--bb\r\nContent-Id: b\r\n\r\nB"});
    EXPECT_EQ(parts(2), Parts{});
}

TEST_F(SlpResponseBody, GivesASplitLastDelimiterToTheLastPartWithoutError) {
    begin(1);
    feedAll({startPart({"a"}) + part("a", "A") + "\r\n--b", "b--\r\n"});
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A\r\n--bb--"});
}

TEST_F(SlpResponseBody, AcceptsAChunkThatEndsAtTheDelimiter) {
    feedAll({startPart({"a", "b"}) + "\r\n--bb", part("a", "A").substr(6) + "\r\n--bb",
             part("b", "B").substr(6) + "\r\n--bb", "--\r\n"});
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
    EXPECT_EQ(parts(2), Parts{"B"});
}

TEST_F(SlpResponseBody, AcceptsAChunkThatEndsAtTheDelimitersLineBreak) {
    feedAll({startPart({"a", "b"}) + "\r\n--bb\r\n", part("a", "A").substr(8) + "\r\n--bb\r\n",
             part("b", "B").substr(8) + "\r\n--bb--", "\r\n"});
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
    EXPECT_EQ(parts(2), Parts{"B"});
}

TEST_F(SlpResponseBody, ReportsADelimitersSplitLineBreakAlthoughAllDataArrive) {
    begin(1);
    feedAll({startPart({"a"}) + "\r\n--bb\r", "\nContent-Id: a\r\n\r\nA" + kEnd});
    finish();
    expectError(1003, kFaulty);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsASplitHeaderBlockAlthoughAllDataArrive) {
    begin(1);
    feedAll({startPart({"a"}) + "\r\n--bb\r\nX: y\r\n", "Content-Id: a\r\n\r\nA" + kEnd});
    finish();
    expectError(1003, kFaulty);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, LosesAPartWhoseIdIsSplit) {
    begin(1);
    feedAll({startPart({"a"}) + "\r\n--bb\r\nContent-", "Id: a\r\n\r\nA" + kEnd});
    expectError(1003, kFaulty);
    finish();
    expectError(1003, kMissing);
}

TEST_F(SlpResponseBody, PutsAHeaderBlockTogetherBehindADelimiterThatEndedAChunk) {
    begin(1);
    feedAll({startPart({"a"}) + "\r\n--bb", "\r\nContent-Id: a\r\n", "\r", "\nA", kEnd});
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, CompletesAHeaderBlockAtTheNextDelimiter) {
    begin(1);
    feedAll({startPart({"a"}) + "\r\n--bb", "\r\nContent-Id: a\r\n", "\r\nA\r\n--bb--\r\n"});
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsACollectedHeaderBlockThatTheNextDelimiterCutsOff) {
    begin(1);
    feedAll({startPart({"a"}) + part("a", "A") + "\r\n--bb", "\r\nContent-Id: b", kEnd});
    finish();
    expectError(1003, kFaulty);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsSplitHyphensOfTheLastDelimiterAlthoughAllDataArrive) {
    begin(1);
    feedAll({startPart({"a"}) + part("a", "A") + "\r\n--bb-", "-\r\n"});
    finish();
    expectError(1003, kFaulty);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsASplitLineBreakBehindTheLastDelimiter) {
    begin(1);
    feedAll({startPart({"a"}) + part("a", "A") + "\r\n--bb--\r", "\n"});
    finish();
    expectError(1003, kFaulty);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsAnEpilogueInTheChunkOfTheLastDelimiter) {
    begin(1);
    feed(startPart({"a"}) + part("a", "A") + kEnd + "epilogue");
    finish();
    expectError(1003, kFaulty);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, IgnoresAnEpilogueInLaterChunks) {
    begin(1);
    feedAll({startPart({"a"}) + part("a", "A") + kEnd, "epilogue", "\r\nContent-Id: a\r\n\r\nX"});
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, IgnoresAnEpilogueBehindALastDelimiterThatEndedItsChunk) {
    begin(1);
    feedAll({startPart({"a"}) + part("a", "A") + "\r\n--bb--", "\r\nepilogue"});
    finish();
    expectNoError();
}

TEST_F(SlpResponseBody, AcceptsALastDelimiterWithoutLineBreak) {
    begin(1);
    feed(startPart({"a"}) + part("a", "A") + "\r\n--bb--");
    finish();
    expectNoError();
}

TEST_F(SlpResponseBody, SkipsTwoBytesBehindADelimiterWhenTheEndIsInTheSameChunk) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bbC");
    feed(startPart({"a"}));
    expectError(1003, kFaulty);
    begin(1);
    // The two bytes are whatever stands there, here the beginning of the header block.
    feed("--bbContent-Id: s\r\n\r\n<SimpleLocationProtocol><SlpResponse status=\"ok\"><result "
         "oid=\"1\" href=\"cid:a\"/></SlpResponse></SimpleLocationProtocol>\r\n--bb--");
    EXPECT_FALSE(request(1).hasExpectedPartIds());
    begin(1);
    feed("--bbContent-Id: s\r\n\r\n<SimpleLocationProtocol><SlpResponse status=\"ok\"><result "
         "oid=\"1\" href=\"cid:a\"/></SlpResponse></SimpleLocationProtocol>\r\n--bb");
    EXPECT_TRUE(request(1).hasExpectedPartIds());
}

TEST_F(SlpResponseBody, SkipsTwoBytesBehindEveryDelimiterInFrontOfTheEnd) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb??Content-Id: a\r\n\r\nA" + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, KeepsTheLineBreakInFrontOfTheHeadersWhenTheEndIsInALaterChunk) {
    begin(1);
    feed(startPart({"a"}) + part("a", "A"));
    feed(kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, ReportsAPartWithoutBlankLine) {
    feed(startPart({"a", "b"}) + "\r\n--bb\r\nContent-Id: a\r\ndata\r\n--bb");
    expectError(1003, kFaulty);
}

TEST_F(SlpResponseBody, AcceptsAPartThatIsABareLineBreak) {
    begin(1);
    feed(startPart({"a"}) + "\r\n--bb\r\n--bb" + part("a", "A"));
    feed(kEnd);
    finish();
    expectNoError();
}

TEST_F(SlpResponseBody, RecognisesTheDelimiterWithoutALineBreakInFront) {
    begin(1);
    feed(startPart({"a"}) + part("a", "A--bbB") + kEnd);
    finish();
    expectError(1003, kFaulty);
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, TakesALongerWordThatBeginsLikeTheDelimiterForADelimiter) {
    begin(1);
    feed(startPart({"a"}) + part("a", "A\r\n--bbbb") + kEnd);
    finish();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, GoesOnAfterErrors) {
    feed("\r\n--bbjunk\r\n--bb\r\nContent-Id: s\r\n\r\njunk" + startPart({"a", "b"}) +
         part("a", "A") + part("b", "B"));
    feed(kEnd);
    finish();
    expectError(1003, "could not parse document");
    EXPECT_EQ(parts(1), Parts{"A"});
    EXPECT_EQ(parts(2), Parts{"B"});
}

TEST_F(SlpResponseBody, PrintsNothingForABrokenDocument) {
    testing::internal::CaptureStderr();
    feed("\r\n--bb\r\nContent-Id: s\r\n\r\n<a b='\xff'><&\r\n--bb");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    expectError(1003, "could not parse document");
}

TEST_F(SlpResponse, CutsABoundaryWithNulAndStaysInsideTheChunk) {
    startExchange(1);
    feed(std::string("HTTP/1.1 200 OK\r\nContent-Type: m; start=s; boundary=bb\0zzzzzzzzzz", 65) +
         "\r\n\r\n");
    feed(startPart({"a"}) + part("a", "A") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(parts(1), Parts{"A"});
}

TEST_F(SlpResponseBody, CountsPartsOfACancelledRequest) {
    begin(1);
    request(1).setCancelled(true);
    feed(startPart({"a"}) + part("a", "A") + kEnd);
    finish();
    expectNoError();
    EXPECT_EQ(request(1).state(), RequestState::Delivered);
    EXPECT_EQ(parts(1), Parts{});
}

} // namespace
} // namespace orvexd
