#include "support/Ascii.h"

#include <gtest/gtest.h>

namespace orvexd {
namespace {

TEST(Ascii, LowersTheLettersAToZ) {
    EXPECT_EQ(asciiLower("ABCDEFGHIJKLMNOPQRSTUVWXYZ"), "abcdefghijklmnopqrstuvwxyz");
}

TEST(Ascii, LeavesEveryOtherByteAsItIs) {
    for (int value = 0; value < 256; ++value) {
        if (value >= 'A' && value <= 'Z') {
            continue;
        }
        const char byte = static_cast<char>(value);
        EXPECT_EQ(asciiLower(byte), byte) << value;
    }
}

TEST(Ascii, LeavesBytesAbove127AndNulInsideText) {
    const std::string text("\xC4\x00Z\xFF", 4);
    EXPECT_EQ(asciiLower(text), std::string("\xC4\x00z\xFF", 4));
}

TEST(Ascii, LowersNothingInAnEmptyText) {
    EXPECT_EQ(asciiLower(""), "");
}

static_assert(asciiLower('Q') == 'q', "usable when compiling");

} // namespace
} // namespace orvexd
