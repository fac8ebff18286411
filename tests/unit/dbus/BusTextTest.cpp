#include "dbus/BusLink.h"

#include <dbus/dbus.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace orvexd {
namespace {

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
constexpr std::size_t kLongestText = 14 * kMebibyte;
constexpr std::size_t kLongestList = 16 * kMebibyte;

const std::string kReplacement = "\xEF\xBF\xBD";

TEST(BusText, ValidTextStaysAsItIs) {
    for (const std::string text : {"", "Connection error", "Nicht verf\xC3\xBCgbar", "\xE2\x82\xAC",
                                   "\xF0\x9F\x98\x80", "\xEF\xBF\xBE", "\x01\x7F\r\n\t"}) {
        EXPECT_EQ(toBusText(text), text);
    }
}

TEST(BusText, ByteThatIsNoUtf8IsReplaced) {
    EXPECT_EQ(toBusText("Nicht verf\xFCgbar"), "Nicht verf" + kReplacement + "gbar");
}

TEST(BusText, EachBadByteIsReplacedByItself) {
    EXPECT_EQ(toBusText("\x80\xFF"), kReplacement + kReplacement);
    EXPECT_EQ(toBusText("\xE2\x82"), kReplacement + kReplacement) << "cut off";
    EXPECT_EQ(toBusText("\xC0\xAF"), kReplacement + kReplacement) << "overlong";
    EXPECT_EQ(toBusText("\xED\xA0\x80"), kReplacement + kReplacement + kReplacement) << "surrogate";
}

TEST(BusText, EndsAtItsFirstNul) {
    EXPECT_EQ(toBusText(std::string("ab\0cd", 5)), "ab");
    EXPECT_EQ(toBusText(std::string("\0cd", 3)), "");
}

TEST(BusText, IsWholeUpToFourteenMebibytes) {
    const std::string longest(kLongestText, 'x');
    EXPECT_TRUE(toBusText(longest) == longest);
    EXPECT_TRUE(toBusText(longest + 'x') == longest);
}

TEST(BusText, IsMeasuredWhenItIsValid) {
    const std::size_t most = kLongestText / kReplacement.size();
    EXPECT_EQ(toBusText(std::string(most, '\xFF')).size(), most * kReplacement.size());
    EXPECT_EQ(toBusText(std::string(most + 1, '\xFF')).size(), most * kReplacement.size());
}

TEST(BusText, IsNeverCutInsideACharacter) {
    const std::string four = "\xF0\x9F\x98\x80";
    for (const std::size_t before : {1U, 3U, 4U}) {
        const std::string front(kLongestText - before, 'x');
        EXPECT_TRUE(toBusText(front + four) == (before < four.size() ? front : front + four))
            << before << " bytes before the limit";
    }
}

TEST(BusText, BadByteWhoseReplacementDoesNotFitIsLeftOut) {
    const std::string front(kLongestText - 2, 'x');
    EXPECT_TRUE(toBusText(front + "\xFF") == front);
    EXPECT_TRUE(toBusText(front.substr(1) + "\xFF") == front.substr(1) + kReplacement);
}

TEST(BusText, LibdbusTakesWhateverComesOut) {
    std::mt19937 random(28); // NOLINT(cert-msc51-cpp): the same run every time
    for (int run = 0; run < 20000; ++run) {
        std::string text(random() % 12, '\0');
        for (char& byte : text) {
            byte = static_cast<char>(random());
        }
        ASSERT_TRUE(dbus_validate_utf8(toBusText(text).c_str(), nullptr))
            << testing::PrintToString(text);
    }
}

std::string joined(const std::vector<std::string>& lists) {
    std::string all;
    for (const std::string& list : lists) {
        all += (all.empty() ? "" : " ") + list;
    }
    return all;
}

/// A list of at least `size` bytes.
std::string keyList(std::size_t size) {
    std::string some = "1:1";
    for (unsigned number = 2; number <= 1000; ++number) {
        some += " 1:" + std::to_string(number);
    }
    std::string keys = some;
    while (keys.size() < size) {
        keys += " " + some;
    }
    return keys;
}

TEST(KeyList, ShortListIsTheOnlyElement) {
    EXPECT_EQ(splitKeyList("1:2 1:3"), std::vector<std::string>{"1:2 1:3"});
}

TEST(KeyList, EmptyListIsTheOnlyElement) {
    EXPECT_EQ(splitKeyList(""), std::vector<std::string>{""});
}

TEST(KeyList, ListOfExactlyTheLimitIsTheOnlyElement) {
    std::string keys = keyList(kLongestList);
    keys.resize(kLongestList);
    EXPECT_EQ(splitKeyList(keys), std::vector<std::string>{keys});
}

TEST(KeyList, LongListIsSplitBetweenKeys) {
    const std::string keys = keyList(2 * kLongestList + 100);
    const std::vector<std::string> lists = splitKeyList(keys);
    EXPECT_EQ(lists.size(), 3U);
    for (const std::string& list : lists) {
        EXPECT_LE(list.size(), kLongestList);
        EXPECT_FALSE(list.empty());
        EXPECT_NE(list.front(), ' ');
        EXPECT_NE(list.back(), ' ');
    }
    EXPECT_TRUE(joined(lists) == keys) << "every key once and in order";
}

TEST(KeyList, BlankJustBehindTheLimitEndsAFullList) {
    const std::string first(kLongestList, '1');
    EXPECT_EQ(splitKeyList(first + " 2:2"), (std::vector<std::string>{first, "2:2"}));
}

TEST(KeyList, TextWithoutBlanksIsNotSplit) {
    const std::string key(kLongestList + 1, '1');
    EXPECT_EQ(splitKeyList(key), std::vector<std::string>{key});
}

} // namespace
} // namespace orvexd
