#include "http/Boundary.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <sys/time.h>

namespace orvexd::test {
namespace {

constexpr std::string_view kAlphabet =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz+_=?";

unsigned currentSeed() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<unsigned>(now.tv_usec / 1000 + now.tv_sec);
}

/// The rule for a drawn code, written as a table of its exceptions.
std::string boundaryFromSeed(unsigned seed) {
    const std::map<int, std::string> replaced = {
        {';', "+"}, {'<', "_"}, {'=', "="}, {'>', "?"}, {':', ""}, {'?', ""}, {'@', ""},
        {'[', ""},  {'\\', ""}, {']', ""},  {'^', ""},  {'_', ""}, {'`', ""}};
    std::srand(seed);
    std::string boundary;
    while (boundary.size() < 70) {
        const int code = std::rand() % 75 + 48;
        const auto found = replaced.find(code);
        boundary +=
            found == replaced.end() ? std::string(1, static_cast<char>(code)) : found->second;
    }
    return boundary;
}

TEST(BoundaryTest, hasSeventyCharacters) {
    EXPECT_EQ(generateBoundary().size(), 70U);
}

TEST(BoundaryTest, consistsOfTheSixtySixSymbolsOnly) {
    for (int round = 0; round < 200; ++round) {
        EXPECT_EQ(generateBoundary().find_first_not_of(kAlphabet), std::string::npos);
    }
}

TEST(BoundaryTest, seedsTheGeneratorWithTheTimeOfDayOnEveryCall) {
    // The seed is taken between two readings of the clock; normally they agree.
    for (int round = 0; round < 20; ++round) {
        const unsigned before = currentSeed();
        const std::string boundary = generateBoundary();
        const unsigned after = currentSeed();
        std::set<std::string> possible;
        for (unsigned seed = before; seed <= after; ++seed) {
            possible.insert(boundaryFromSeed(seed));
        }
        EXPECT_TRUE(possible.contains(boundary)) << boundary;
    }
}

TEST(BoundaryTest, isTheSameForTwoExchangesOfTheSameMillisecond) {
    for (int round = 0; round < 10000; ++round) {
        const unsigned before = currentSeed();
        const std::string first = generateBoundary();
        const std::string second = generateBoundary();
        if (currentSeed() == before) {
            EXPECT_EQ(first, second);
            return;
        }
    }
    FAIL() << "no two boundaries within a millisecond";
}

TEST(BoundaryTest, differsFromOneMillisecondToAnother) {
    std::set<std::string> boundaries;
    const unsigned start = currentSeed();
    unsigned seeds = 0;
    for (unsigned seed = start; seeds < 5;) {
        boundaries.insert(generateBoundary());
        const unsigned now = currentSeed();
        seeds += now != seed ? 1 : 0;
        seed = now;
    }
    EXPECT_GE(boundaries.size(), 5U);
}

} // namespace
} // namespace orvexd::test
