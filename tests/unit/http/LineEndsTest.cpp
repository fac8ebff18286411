#include "http/LineEnds.h"

#include <array>
#include <gtest/gtest.h>
#include <random>
#include <string>

namespace orvexd::test {
namespace {

/// The rule, byte by byte.
std::string expected(const std::string& chunk) {
    std::string text;
    for (std::size_t i = 0; i < chunk.size(); ++i) {
        if (i > 0 && chunk[i] == '\n' && chunk[i - 1] != '\r') {
            text += '\r';
        }
        text += chunk[i];
    }
    return text;
}

TEST(LineEnds, TurnABareLineFeedIntoCrLf) {
    EXPECT_EQ(normalizeLineEnds("a\nb"), "a\r\nb");
}

TEST(LineEnds, LeaveACrLfPairAlone) {
    EXPECT_EQ(normalizeLineEnds("a\r\nb\r\n"), "a\r\nb\r\n");
}

TEST(LineEnds, LeaveALineFeedAtPositionZeroBare) {
    EXPECT_EQ(normalizeLineEnds("\nb"), "\nb");
    EXPECT_EQ(normalizeLineEnds("\n"), "\n");
}

TEST(LineEnds, CompleteEachOfSeveralLineFeedsInARow) {
    EXPECT_EQ(normalizeLineEnds("a\n\n\nb"), "a\r\n\r\n\r\nb");
    EXPECT_EQ(normalizeLineEnds("\n\n"), "\n\r\n");
}

TEST(LineEnds, LeaveALoneCarriageReturnAlone) {
    EXPECT_EQ(normalizeLineEnds("a\rb\r"), "a\rb\r");
}

TEST(LineEnds, OfNothingAreNothing) {
    EXPECT_EQ(normalizeLineEnds(""), "");
}

TEST(LineEnds, KeepNulAndHighBytes) {
    const std::string bytes("\0\xff\n\0", 4);
    EXPECT_EQ(normalizeLineEnds(bytes), std::string("\0\xff\r\n\0", 5));
}

TEST(LineEnds, OfLineFeedsOnlyNearlyDoubleTheText) {
    EXPECT_EQ(normalizeLineEnds(std::string(64500, '\n')).size(), 128999U);
}

TEST(LineEnds, BeyondTheBufferGoIntoTheOverflow) {
    std::array<char, 4> out{};
    std::string overflow;
    EXPECT_EQ(normalizeLineEnds("ab\ncd\n", out, overflow), 4U);
    EXPECT_EQ(std::string(out.data(), out.size()), "ab\r\n");
    EXPECT_EQ(overflow, "cd\r\n");
}

TEST(LineEnds, MaySplitACarriageReturnFromItsLineFeed) {
    std::array<char, 3> out{};
    std::string overflow;
    EXPECT_EQ(normalizeLineEnds("ab\n", out, overflow), 3U);
    EXPECT_EQ(std::string(out.data(), out.size()), "ab\r");
    EXPECT_EQ(overflow, "\n");
}

TEST(LineEnds, AreAppendedToWhatTheOverflowHolds) {
    std::string overflow = "before";
    EXPECT_EQ(normalizeLineEnds("a\n", {}, overflow), 0U);
    EXPECT_EQ(overflow, "beforea\r\n");
}

TEST(LineEnds, OfRandomTextInRandomBuffersFollowTheRule) {
    std::mt19937 random(4711);
    for (int round = 0; round < 3000; ++round) {
        std::string chunk(random() % 40, ' ');
        for (char& c : chunk) {
            c = "\r\n\nx"[random() % 4];
        }
        constexpr char kGuard = '\x5a';
        std::string buffer(random() % 80 + 1, kGuard);
        const std::size_t room = random() % buffer.size();
        std::string overflow;
        const std::size_t written =
            normalizeLineEnds(chunk, std::span<char>(buffer.data(), room), overflow);
        ASSERT_LE(written, room);
        EXPECT_EQ(buffer.substr(0, written) + overflow, expected(chunk));
        EXPECT_EQ(buffer.substr(room), std::string(buffer.size() - room, kGuard));
        EXPECT_TRUE(overflow.empty() || written == room);
    }
}

TEST(LineEnds, OfLongerLinesFollowTheRuleToo) {
    std::mt19937 random(1147);
    for (int round = 0; round < 2000; ++round) {
        std::string chunk(random() % 600, 'x');
        for (std::size_t at = random() % 130; at < chunk.size(); at += 1 + random() % 130) {
            chunk[at] = "\r\n\n"[random() % 3];
        }
        constexpr char kGuard = '\x5a';
        std::string buffer(random() % 700 + 1, kGuard);
        const std::size_t room = random() % buffer.size();
        std::string overflow;
        const std::size_t written =
            normalizeLineEnds(chunk, std::span<char>(buffer.data(), room), overflow);
        ASSERT_LE(written, room);
        EXPECT_EQ(buffer.substr(0, written) + overflow, expected(chunk));
        EXPECT_EQ(buffer.substr(room), std::string(buffer.size() - room, kGuard));
        EXPECT_TRUE(overflow.empty() || written == room);
    }
}

} // namespace
} // namespace orvexd::test
