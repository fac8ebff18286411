#include "slp/ResponseHead.h"

#include <gtest/gtest.h>
#include <string>

namespace orvexd {
namespace {

TEST(HeaderValue, IsEmptyWhenTheHeaderIsAbsent) {
    EXPECT_EQ(headerValue("Content-Type: a", "Content-Id"), "");
    EXPECT_EQ(headerValue("", "Content-Id"), "");
}

TEST(HeaderValue, EndsAtTheCarriageReturn) {
    EXPECT_EQ(headerValue("Content-Id: a1\r\nContent-Type: t", "Content-Id"), "a1");
}

TEST(HeaderValue, EndsAtTheEndOfTheBlock) {
    EXPECT_EQ(headerValue("Content-Type: t\r\nContent-Id: a1", "Content-Id"), "a1");
}

TEST(HeaderValue, IgnoresTheCaseOfTheName) {
    EXPECT_EQ(headerValue("CONTENT-id: Ab\r\n", "content-ID"), "Ab");
}

TEST(HeaderValue, SkipsAnyBlanksAndColonsInFrontOfTheValue) {
    EXPECT_EQ(headerValue("Content-Id : :  a", "Content-Id"), "a");
    EXPECT_EQ(headerValue("Content-Ida", "Content-Id"), "a");
}

TEST(HeaderValue, KeepsBlanksAndColonsInsideTheValue) {
    EXPECT_EQ(headerValue("Content-Id: a b:c\r\n", "Content-Id"), "a b:c");
}

TEST(HeaderValue, KeepsTrailingBlanksAndAngleBrackets) {
    EXPECT_EQ(headerValue("Content-Id: <a> \r\n", "Content-Id"), "<a> ");
}

TEST(HeaderValue, KeepsATab) {
    EXPECT_EQ(headerValue("Content-Id:\ta", "Content-Id"), "\ta");
}

TEST(HeaderValue, RunsThroughABareLineFeed) {
    EXPECT_EQ(headerValue("Content-Id: a\nContent-Type: t\r\nX: y", "Content-Id"),
              "a\nContent-Type: t");
}

TEST(HeaderValue, IsEmptyWhenOnlyBlanksFollow) {
    EXPECT_EQ(headerValue("Content-Id: \r\nX: y", "Content-Id"), "");
    EXPECT_EQ(headerValue("Content-Id:  ", "Content-Id"), "");
    EXPECT_EQ(headerValue("Content-Id", "Content-Id"), "");
}

TEST(HeaderValue, TakesTheFirstPlaceWhereTheNameStandsEvenInsideAnotherWord) {
    EXPECT_EQ(headerValue("X-Content-Id-Kind: k\r\nContent-Id: a", "Content-Id"), "-Kind: k");
}

TEST(HeaderValue, KeepsNulBytes) {
    EXPECT_EQ(headerValue(std::string_view("Content-Id: a\0b\r\n", 17), "Content-Id"),
              std::string("a\0b", 3));
}

} // namespace
} // namespace orvexd
