#include "http/HttpClient.h"

#include <gtest/gtest.h>
#include <string>

namespace orvexd::test {
namespace {

TEST(HexDump, OfNothingIsEmpty) {
    EXPECT_EQ(HttpClient::hexDump(""), "");
}

TEST(HexDump, PadsAShortLineToFortyEightColumns) {
    EXPECT_EQ(HttpClient::hexDump("A"), "41 " + std::string(45, ' ') + " [A]\n");
}

TEST(HexDump, ShowsSixteenBytesOnALine) {
    EXPECT_EQ(HttpClient::hexDump("0123456789abcdef"),
              "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  [0123456789abcdef]\n");
}

TEST(HexDump, BeginsANewLineWithTheSeventeenthByte) {
    EXPECT_EQ(HttpClient::hexDump("0123456789abcdefg"),
              "30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  [0123456789abcdef]\n67 " +
                  std::string(45, ' ') + " [g]\n");
}

TEST(HexDump, ShowsUpperCaseDigitsAndDotsForWhatIsNotPrintable) {
    EXPECT_EQ(HttpClient::hexDump(std::string_view("\x00\x1f \x7e\x7f\x80\xab\xff\n", 9)),
              "00 1F 20 7E 7F 80 AB FF 0A " + std::string(21, ' ') + " [.. ~.....]\n");
}

} // namespace
} // namespace orvexd::test
