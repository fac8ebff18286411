#include "slp/ResponseHead.h"

#include <gtest/gtest.h>
#include <ostream>
#include <string>

namespace orvexd {
namespace {

constexpr const char* kMultipart =
    "\r\nContent-Type: multipart/related; boundary=\"bb\"; start=\"s\"";

std::string headWith(const std::string& contentType) {
    return "HTTP/1.1 200 OK\r\nContent-Type: " + contentType;
}

void expectError(const ResponseHead& head, int code, const std::string& text) {
    ASSERT_TRUE(head.error.has_value());
    EXPECT_EQ(head.error->code, code);
    EXPECT_EQ(head.error->text, text);
}

TEST(ParseResponseHead, ReadsStartAndBoundary) {
    const ResponseHead head = parseResponseHead(std::string("HTTP/1.1 200 OK") + kMultipart);
    EXPECT_FALSE(head.error.has_value());
    ASSERT_TRUE(head.multipart.has_value());
    EXPECT_EQ(head.multipart->startId, "s");
    EXPECT_EQ(head.multipart->boundary, "bb");
}

TEST(ParseResponseHead, RefusesWhatDoesNotBeginWithHttpAndQuotesIt) {
    const ResponseHead head = parseResponseHead("ICY 200 OK");
    expectError(head, 51,
                "Malformed response from server: should start with HTTP, instead of: [ICY 200 OK]");
    EXPECT_FALSE(head.multipart.has_value());
}

TEST(ParseResponseHead, ComparesTheFirstFourCharactersWithTheirCase) {
    expectError(parseResponseHead("http/1.1 200 OK"), 51,
                "Malformed response from server: should start with HTTP, instead of: "
                "[http/1.1 200 OK]");
    expectError(parseResponseHead("HTT"), 51,
                "Malformed response from server: should start with HTTP, instead of: [HTT]");
}

TEST(ParseResponseHead, QuotesAnEmptyHeadToo) {
    expectError(parseResponseHead(""), 51,
                "Malformed response from server: should start with HTTP, instead of: []");
}

TEST(ParseResponseHead, HasNoCodeWhenTheNumberIsTooLarge) {
    const ResponseHead head =
        parseResponseHead(std::string("HTTP/1.1 99999999999999999999 X") + kMultipart);
    expectError(head, 51, "No HTTP response code");
    EXPECT_FALSE(head.multipart.has_value());
}

TEST(ParseResponseHead, TakesTextWithoutANumberAsStatusZero) {
    EXPECT_FALSE(parseResponseHead(std::string("HTTP/1.1 abc OK") + kMultipart).error);
}

TEST(ParseResponseHead, ReadsTheCodeFromTheStartWhenThereIsNoBlank) {
    const ResponseHead head = parseResponseHead("HTTP/1.1\r\nContent-Type:x;start=s;boundary=b");
    EXPECT_FALSE(head.error.has_value());
    EXPECT_EQ(head.multipart->boundary, "b");
}

TEST(ParseResponseHead, TakesTheWholeHeadAsTextWhenNoBlankFollowsTheCode) {
    const ResponseHead head =
        parseResponseHead("HTTP/1.1 404\r\nContent-Type:x;start=s;boundary=b");
    expectError(head, 43, "HTTP/1.1 404\r\nContent-Type:x;start=s;boundary=b");
}

TEST(ParseResponseHead, LooksForTheSecondBlankBeyondTheStatusLine) {
    const ResponseHead head =
        parseResponseHead("HTTP/1.1 404\r\nContent-Type: x;start=s;boundary=b");
    expectError(head, 43, "x;start=s;boundary=b");
}

TEST(ParseResponseHead, ReportsReasonAndHeaderLinesOfAnErrorStatus) {
    const ResponseHead head =
        parseResponseHead(std::string("HTTP/1.1 503 Service Unavailable") + kMultipart);
    expectError(head, 55, std::string("Service Unavailable") + kMultipart);
    EXPECT_EQ(head.multipart->boundary, "bb");
}

TEST(ParseResponseHead, KeepsLatin1BytesOfTheReason) {
    const ResponseHead head =
        parseResponseHead(std::string("HTTP/1.1 503 Nicht verf\xfcgbar") + kMultipart);
    expectError(head, 55, std::string("Nicht verf\xfcgbar") + kMultipart);
}

TEST(ParseResponseHead, ReplacesAnErrorStatusByAFormatError) {
    expectError(parseResponseHead("HTTP/1.1 404 Not Found\r\nContent-Type: text/html"), 1003,
                "'start' attribute not found");
}

TEST(ParseResponseHead, NeedsAContentType) {
    const ResponseHead head = parseResponseHead("HTTP/1.1 200 OK\r\nContent-Length: 4");
    expectError(head, 1003, "No Content-Type header");
    EXPECT_FALSE(head.multipart.has_value());
}

TEST(ParseResponseHead, FindsContentTypeInAnyCaseAndAnywhere) {
    EXPECT_FALSE(parseResponseHead("HTTP/1.1 200 OK\r\nX-CONTENT-TYPE: start=s; boundary=b").error);
}

TEST(ParseResponseHead, ReadsTheContentTypeUpToItsLineFeedOnly) {
    const ResponseHead head =
        parseResponseHead("HTTP/1.1 200 OK\r\nContent-Type: x; start=s;\r\n boundary=b");
    expectError(head, 1003, "boundary not found");
}

TEST(ParseResponseHead, KeepsABoundaryThatWasFoundWithoutStart) {
    const ResponseHead head = parseResponseHead(headWith("multipart/related; boundary=b"));
    expectError(head, 1003, "'start' attribute not found");
    ASSERT_TRUE(head.multipart.has_value());
    EXPECT_EQ(head.multipart->boundary, "b");
}

TEST(ParseResponseHead, ReportsAnEmptyBoundary) {
    expectError(parseResponseHead(headWith("multipart/related; start=s; boundary=\"\"")), 1003,
                "boundary not found");
}

TEST(ParseResponseHead, EndsTheBoundaryAtItsFirstNul) {
    const ResponseHead head =
        parseResponseHead(headWith(std::string("m/r; start=s; boundary=a\0b", 26)));
    EXPECT_EQ(head.multipart->boundary, "a");
}

TEST(ParseResponseHead, HasNoBoundaryWhenItBeginsWithNul) {
    expectError(parseResponseHead(headWith(std::string("m/r; start=s; boundary=\0b", 25))), 1003,
                "boundary not found");
}

struct StatusCase {
    long status;
    int code;
};

std::ostream& operator<<(std::ostream& out, const StatusCase& test) {
    return out << "HTTP status " << test.status;
}

class StatusToErrorCode : public testing::TestWithParam<StatusCase> {};

TEST_P(StatusToErrorCode, FollowsTheTable) {
    EXPECT_EQ(statusToErrorCode(GetParam().status), GetParam().code);
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, StatusToErrorCode,
    testing::Values(StatusCase{400, 41}, StatusCase{401, 56}, StatusCase{402, 43},
                    StatusCase{403, 56}, StatusCase{404, 43}, StatusCase{499, 43},
                    StatusCase{500, 55}, StatusCase{503, 55}, StatusCase{999999, 55},
                    StatusCase{399, 57}, StatusCase{200, 57}, StatusCase{0, 57},
                    StatusCase{-1, 57}),
    [](const auto& test) {
        return test.param.status < 0 ? "Negative" : std::to_string(test.param.status);
    });

TEST(ParseResponseHead, TakesNoStatusBelow400AsError) {
    EXPECT_FALSE(parseResponseHead(std::string("HTTP/1.1 399 X") + kMultipart).error);
    EXPECT_FALSE(parseResponseHead(std::string("HTTP/1.1 -500 X") + kMultipart).error);
}

TEST(ParseResponseHead, MapsEachErrorStatus) {
    for (const auto& [status, code] :
         {StatusCase{400, 41}, StatusCase{401, 56}, StatusCase{404, 43}, StatusCase{500, 55}}) {
        expectError(parseResponseHead("HTTP/2 " + std::to_string(status) + " R" + kMultipart), code,
                    std::string("R") + kMultipart);
    }
}

TEST(ContentTypeParameter, IsEmptyWithoutTheName) {
    EXPECT_EQ(contentTypeParameter("a; b=c", "start"), "");
}

TEST(ContentTypeParameter, IsEmptyWithoutAnEqualsSignBehindTheName) {
    EXPECT_EQ(contentTypeParameter("a=b; start", "start"), "");
}

TEST(ContentTypeParameter, EndsAtSemicolonBlankOrLineEnd) {
    EXPECT_EQ(contentTypeParameter("start=a;b", "start"), "a");
    EXPECT_EQ(contentTypeParameter("start=a b", "start"), "a");
    EXPECT_EQ(contentTypeParameter("start=a\rb", "start"), "a");
    EXPECT_EQ(contentTypeParameter("start=a\nb", "start"), "a");
    EXPECT_EQ(contentTypeParameter("start=a", "start"), "a");
}

TEST(ContentTypeParameter, LosesQuotesWhereverTheyStand) {
    EXPECT_EQ(contentTypeParameter("start=\"a\"", "start"), "a");
    EXPECT_EQ(contentTypeParameter("start='a", "start"), "a");
    EXPECT_EQ(contentTypeParameter("start=a\"b'c", "start"), "abc");
}

TEST(ContentTypeParameter, LosesEqualsSignsInsideTheValue) {
    EXPECT_EQ(contentTypeParameter("boundary=\"a=b\"", "boundary"), "ab");
}

TEST(ContentTypeParameter, EndsAtABlankEvenInsideQuotes) {
    EXPECT_EQ(contentTypeParameter("boundary=\"a b\"", "boundary"), "a");
}

TEST(ContentTypeParameter, IsEmptyWhenABlankFollowsTheEqualsSign) {
    EXPECT_EQ(contentTypeParameter("start= a", "start"), "");
}

TEST(ContentTypeParameter, TakesTheNameInsideALongerWord) {
    EXPECT_EQ(contentTypeParameter("x; start-info=i; start=s", "start"), "i");
}

TEST(ContentTypeParameter, TakesTheNextEqualsSignWhateverStandsBetween) {
    EXPECT_EQ(contentTypeParameter("start; boundary=b", "start"), "b");
}

TEST(ContentTypeParameter, IgnoresTheCaseOfTheNameAndKeepsThatOfTheValue) {
    EXPECT_EQ(contentTypeParameter("START=AbC", "start"), "AbC");
}

} // namespace
} // namespace orvexd
