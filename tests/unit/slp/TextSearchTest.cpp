#include "slp/TextSearch.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

constexpr auto kNone = std::string_view::npos;

TEST(FindBytes, GivesTheFirstPositionFromTheStart) {
    EXPECT_EQ(findBytes("xabyab", "ab"), 1U);
}

TEST(FindBytes, StartsAtTheGivenPosition) {
    EXPECT_EQ(findBytes("abab", "ab", 1), 2U);
    EXPECT_EQ(findBytes("abab", "ab", 2), 2U);
}

TEST(FindBytes, FindsNothingInTooShortAText) {
    EXPECT_EQ(findBytes("ab", "abc"), kNone);
    EXPECT_EQ(findBytes(std::string_view(), "a"), kNone);
    EXPECT_EQ(findBytes("abc", "a", 3), kNone);
    EXPECT_EQ(findBytes("abc", "a", 4), kNone);
}

TEST(FindBytes, LooksBeyondNulBytes) {
    EXPECT_EQ(findBytes(std::string_view("a\0b", 3), "b"), 2U);
}

TEST(FindIgnoringCase, MatchesAnyCaseOfAsciiLetters) {
    EXPECT_EQ(findIgnoringCase("x CONTENT-Type", "content-type"), 2U);
    EXPECT_EQ(findIgnoringCase("x content-type", "Content-TYPE"), 2U);
}

TEST(FindIgnoringCase, LeavesBytesAbove127Alone) {
    EXPECT_EQ(findIgnoringCase("\xc4", "\xe4"), kNone);
}

TEST(FindIgnoringCase, FindsNothingInAnEmptyText) {
    EXPECT_EQ(findIgnoringCase("", "a"), kNone);
}

TEST(NextOccurrence, AnswersForEveryPositionThatGrows) {
    NextOccurrence next("..ab..ab..", "ab");
    EXPECT_EQ(next.from(0), 2U);
    EXPECT_EQ(next.from(2), 2U);
    EXPECT_EQ(next.from(3), 6U);
    EXPECT_EQ(next.from(7), kNone);
    EXPECT_EQ(next.from(9), kNone);
}

} // namespace
} // namespace orvexd
